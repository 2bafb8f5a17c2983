// Link-time fakes of the platform services that record every call and return scripted values.
#include "tests/support/fake_platform.h"

#include "fcadmin_platform.h"

#include <openssl/evp.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <map>

#include <unistd.h>

namespace fcadmin_test {
namespace {

struct State {
    std::vector<PlatformCall> calls;
    std::map<std::string, std::deque<int>> results;
    std::map<std::string, int> defaults;
    std::deque<std::string> answers;
    std::deque<int> handles;
    std::deque<std::string> lists;
    int console_echo_fd = -1;
    std::map<std::string, std::function<void()>> hooks;
};

State &state() {
    static State s;
    return s;
}

std::string text(const char *s) { return s == nullptr ? "(null)" : s; }

template <typename T>
T take_front(std::deque<T> &queue) {
    T front = std::move(queue.front());
    queue.pop_front();
    return front;
}

int next_result(const std::string &name) {
    auto &queue = state().results[name];
    if (!queue.empty()) return take_front(queue);
    const auto it = state().defaults.find(name);
    return it == state().defaults.end() ? 0 : it->second;
}

void record(const std::string &name, std::vector<std::string> args) {
    state().calls.push_back({name, std::move(args)});
    auto hook = state().hooks.find(name);
    if (hook != state().hooks.end()) hook->second();
}

}  // namespace

std::vector<PlatformCall> &platform_calls() { return state().calls; }

std::vector<PlatformCall> platform_calls_of(const std::string &name) {
    std::vector<PlatformCall> out;
    for (const auto &c : state().calls)
        if (c.name == name) out.push_back(c);
    return out;
}

std::vector<std::string> platform_call_names() {
    std::vector<std::string> out;
    for (const auto &c : state().calls) out.push_back(c.name);
    return out;
}

void on_platform_call(const std::string &name, std::function<void()> hook) {
    state().hooks[name] = std::move(hook);
}

void reset_platform() { state() = State{}; }

void script_results(const std::string &name, std::vector<int> results) {
    state().results[name].assign(results.begin(), results.end());
}

void set_default_result(const std::string &name, int result) { state().defaults[name] = result; }

void script_answers(std::vector<std::string> answers) {
    state().answers.assign(answers.begin(), answers.end());
}

void script_trace_handles(std::vector<int> handles) { state().handles.assign(handles.begin(), handles.end()); }

void script_staged_lists(std::vector<std::string> lists) { state().lists.assign(lists.begin(), lists.end()); }

void echo_console_to(int fd) { state().console_echo_fd = fd; }

}  // namespace fcadmin_test

using namespace fcadmin_test;

extern "C" {

int32_t trace_module_init(int32_t *handle, int32_t module_id, int32_t size, const char *name,
                          uint32_t *descriptor) {
    std::vector<std::string> args = {std::to_string(module_id), std::to_string(size), text(name)};
    for (int i = 0; i < 5; ++i) args.push_back(descriptor ? std::to_string(descriptor[i]) : "(null)");
    record("trace_module_init", args);
    const int h = state().handles.empty() ? (module_id == 305 ? 7 : 8) : take_front(state().handles);
    if (handle != nullptr) *handle = h;
    return next_result("trace_module_init");
}

int32_t trace_module_store_lvl(int32_t handle, int32_t module_id, int32_t level, int32_t flags,
                               const char *line) {
    record("trace_module_store_lvl", {std::to_string(handle), std::to_string(module_id),
                                      std::to_string(level), std::to_string(flags), text(line)});
    return next_result("trace_module_store_lvl");
}

int32_t ork_infra_system(const char *command, int32_t options, const char *redirect[5]) {
    std::vector<std::string> args = {text(command), std::to_string(options)};
    for (int i = 0; i < 5; ++i) args.push_back(redirect ? text(redirect[i]) : "(null)");
    record("ork_infra_system", args);
    return next_result("ork_infra_system");
}

int32_t ork_infra_scanf(const char *prompt, char *answer, int32_t limit) {
    record("ork_infra_scanf", {text(prompt), std::to_string(limit)});
    if (!state().answers.empty() && answer != nullptr && limit > 0) {
        const std::string a = take_front(state().answers);
        const size_t n = std::min(a.size(), static_cast<size_t>(limit) - 1);
        memcpy(answer, a.data(), n);
        answer[n] = '\0';
    }
    return next_result("ork_infra_scanf");
}

int32_t ork_verify_password(const char *password) {
    record("ork_verify_password", {text(password)});
    return next_result("ork_verify_password");
}

int32_t console_printf(const char *format, ...) {
    char buf[4096];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    record("console_printf", {buf});
    if (state().console_echo_fd >= 0 && n > 0) {
        size_t length = std::min(static_cast<size_t>(n), sizeof buf - 1);
        if (write(state().console_echo_fd, buf, length) < 0) perror("console echo");
    }
    return n;
}

int32_t geps_2env(void) {
    record("geps_2env", {});
    return next_result("geps_2env");
}

void MD5_hash_compute(unsigned char digest[16], const unsigned char *data, uint32_t length) {
    record("MD5_hash_compute", {std::to_string(length)});
    EVP_Digest(data, length, digest, nullptr, EVP_md5(), nullptr);
}

int32_t stage_export_content(const char *selector, const char *item, char list[1280]) {
    record("stage_export_content", {text(selector), text(item)});
    if (!state().lists.empty() && list != nullptr) snprintf(list, 1280, "%s", take_front(state().lists).c_str());
    return next_result("stage_export_content");
}

}  // extern "C"
