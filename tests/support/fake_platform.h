// Link-time fakes of the platform services: every call is recorded with its arguments, in order, and
// returns a scripted value (0 when nothing is scripted).
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fcadmin_test {

struct PlatformCall {
    std::string name;               // "ork_infra_system", "geps_2env", ...
    std::vector<std::string> args;  // each argument as text; a null pointer is "(null)"
};

// The calls since the last reset, in order.
std::vector<PlatformCall> &platform_calls();
// Only the calls of one service.
std::vector<PlatformCall> platform_calls_of(const std::string &name);
// Names of all calls, in order.
std::vector<std::string> platform_call_names();

// Forgets all calls and scripts.
void reset_platform();

// Results that the next calls of a service return, one per call; afterwards the default.
// Services: trace_module_init, trace_module_store_lvl, ork_infra_system, ork_infra_scanf,
// ork_verify_password, geps_2env, stage_export_content.
void script_results(const std::string &name, std::vector<int> results);
void set_default_result(const std::string &name, int result);

// Answers that ork_infra_scanf copies into the caller's buffer (bounded by the limit), one per call.
void script_answers(std::vector<std::string> answers);
// Handles that trace_module_init writes, one per call (default: 7 for module 305, 8 for 312).
void script_trace_handles(std::vector<int> handles);
// The list text that stage_export_content writes, one per call.
void script_staged_lists(std::vector<std::string> lists);

// Runs hook inside every call of a service, after the call is recorded and before it returns, so that
// a test can look at process state at that moment (the terminal's echo while a password is read).
void on_platform_call(const std::string &name, std::function<void()> hook);

// Also writes the text of every console_printf call to fd (-1, the default, writes nothing). A forked
// child's calls are recorded in the child only; this lets its parent see them through a pipe.
void echo_console_to(int fd);

}  // namespace fcadmin_test
