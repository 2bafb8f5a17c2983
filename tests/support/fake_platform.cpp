// The recording fakes of the platform services, and the call log and scripts shared with the interposed calls.
#include "tests/support/fake_platform.h"

#include "fcadmin_platform.h"

#include <openssl/evp.h>

#include <cstdarg>
#include <deque>
#include <map>

namespace fcadmin_test {
struct State {
    std::vector<Call> calls;
    std::map<std::string, std::deque<std::pair<long, int>>> scripts;
    std::map<std::string, long> defaults;
    std::deque<std::string> answers, lists;
    std::map<std::string, std::function<void()>> hooks;
};

static State &state() {  // a function-local static: the C library may call an interposed function early
    static State s;
    return s;
}

static std::string text(const char *s) { return s == nullptr ? "(null)" : s; }
template <typename T>
static std::string text(T v) { return std::to_string(v); }

template <typename... A>
static long fake(const std::string &name, A... args) {
    long result = 0;
    if (record_call(name, {text(args)...}, &result)) return result;
    const auto it = state().defaults.find(name);
    return it == state().defaults.end() ? 0 : it->second;
}

static void take(std::deque<std::string> &queue, char *out, long size) {  // the next scripted text, if any, into out
    if (queue.empty() || out == nullptr || size <= 0) return;
    snprintf(out, static_cast<size_t>(size), "%s", queue.front().c_str());
    queue.pop_front();
}

std::string Call::text() const {
    std::string out = name;
    for (const auto &a : args) out += " " + a;
    return out;
}

std::vector<Call> &calls() { return state().calls; }

Lines args_of(const std::string &name, size_t i) {
    Lines out;
    for (const auto &c : state().calls)
        if (c.name == name) out.push_back(i < c.args.size() ? c.args[i] : "?");
    return out;
}

std::string call_letters(const std::string &letters) {
    std::string out;
    for (const auto &c : state().calls) {
        const size_t at = (letters + " ").find("=" + c.name + " ");
        out += at == std::string::npos || at == 0 ? '?' : letters[at - 1];
    }
    return out;
}

void reset_platform() { state() = State{}; }

void set_default(const std::string &name, long result) { state().defaults[name] = result; }
void script_answers(Lines answers) { state().answers.assign(answers.begin(), answers.end()); }
void script_lists(Lines lists) { state().lists.assign(lists.begin(), lists.end()); }
void on_call(const std::string &name, std::function<void()> hook) { state().hooks[name] = std::move(hook); }

void script(const std::string &key, std::vector<long> results, int err) {
    auto &queue = state().scripts[key];
    queue.clear();
    for (long r : results) queue.emplace_back(r, err);
}

bool scripted(const std::string &key, long *result, int *err) {
    auto it = state().scripts.find(key);
    if (it == state().scripts.end() || it->second.empty()) return false;
    *result = it->second.front().first;
    if (err != nullptr) *err = it->second.front().second;
    it->second.pop_front();
    return true;
}

bool record_call(const std::string &name, Lines args, long *result, int *err) {
    state().calls.push_back({name, std::move(args)});
    const std::string text = state().calls.back().text();
    if (auto hook = state().hooks.find(name); hook != state().hooks.end()) hook->second();
    return scripted(text, result, err) || scripted(name, result, err);
}

}  // namespace fcadmin_test

using namespace fcadmin_test;

extern "C" {

// Handles 7 and 8 for the two channels, unless a test scripts "trace_module_init handle".
int32_t trace_module_init(int32_t *handle, int32_t id, int32_t size, const char *name, uint32_t *d) {
    long assigned = id == 305 ? 7 : 8;
    scripted("trace_module_init handle", &assigned, nullptr);
    if (handle != nullptr) *handle = static_cast<int32_t>(assigned);
    return static_cast<int32_t>(fake("trace_module_init", id, size, name, d[0], d[1], d[2], d[3], d[4]));
}

int32_t trace_module_store_lvl(int32_t handle, int32_t id, int32_t level, int32_t flags, const char *line) {
    return static_cast<int32_t>(fake("trace_module_store_lvl", handle, id, level, flags, line));
}

int32_t ork_infra_system(const char *command, int32_t options, const char *r[5]) {
    return static_cast<int32_t>(fake("ork_infra_system", command, options, r[0], r[1], r[2], r[3], r[4]));
}

int32_t ork_infra_scanf(const char *prompt, char *answer, int32_t limit) {
    const long result = fake("ork_infra_scanf", prompt, limit);
    take(state().answers, answer, limit);
    return static_cast<int32_t>(result);
}

int32_t ork_verify_password(const char *password) { return static_cast<int32_t>(fake("ork_verify_password", password)); }
int32_t geps_2env(void) { return static_cast<int32_t>(fake("geps_2env")); }

int32_t console_printf(const char *format, ...) {
    char buf[4096];
    va_list args;
    va_start(args, format);
    const int n = vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    write_file(kConsoleFile, read_file(kConsoleFile) + buf, 0600);
    fake("console_printf", static_cast<const char *>(buf));
    return n;
}

void MD5_hash_compute(unsigned char digest[16], const unsigned char *data, uint32_t length) {
    fake("MD5_hash_compute", length);
    EVP_Digest(data, length, digest, nullptr, EVP_md5(), nullptr);
}

int32_t stage_export_content(const char *selector, const char *item, char list[1280]) {
    const long result = fake("stage_export_content", selector, item);
    take(state().lists, list, 1280);
    return static_cast<int32_t>(result);
}

}  // extern "C"
