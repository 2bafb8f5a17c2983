// Recording fakes of the platform services and (interpose.cpp) of the library's file and System V calls: every
// call is recorded in order with its arguments as text, and returns a scripted result.
#pragma once

#include "tests/support/helpers.h"

namespace fcadmin_test {

struct Call {
    std::string name;  // "ork_infra_system", "semop", ...
    Lines args;        // each argument as text; a null pointer is "(null)"
    std::string text() const;  // "name arg1 arg2 ..."
};
std::vector<Call> &calls();                        // since the last reset, in order
Lines args_of(const std::string &name, size_t i);  // argument i of every call of name
// One letter a call, from a key like "g=geps_2env r=ork_infra_system"; '?' for the others.
std::string call_letters(const std::string &letters);
void reset_platform();  // forgets calls, scripts and hooks

// Results that the next calls return, one a call, then the real call (a system call) or the default (a
// service: 0 unless set). The key is a call's text ("fsync tmp"), tried first, or its name; a scripted
// system call fails with err.
void script(const std::string &key, std::vector<long> results, int err = 0);
void set_default(const std::string &name, long result);
void script_answers(Lines answers);  // what ork_infra_scanf reads, one a call
void script_lists(Lines lists);      // what stage_export_content writes into its list, one a call
void on_call(const std::string &name, std::function<void()> hook);  // runs inside every call of name
// console_printf appends its text here too, so that a forked child's console lines can be read.
inline constexpr char kConsoleFile[] = "/tmp/console.txt";

// Records a call; true with *result (and *err) when one is scripted.
bool record_call(const std::string &name, Lines args, long *result, int *err = nullptr);
bool scripted(const std::string &key, long *result, int *err);

// interpose.cpp: System V calls are recorded while recording is on, file calls only on labelled
// paths, which the label stands for in the text ("fsync tmp").
void interpose(bool on);
void label_paths(std::vector<std::pair<std::string, std::string>> labels);

}  // namespace fcadmin_test
