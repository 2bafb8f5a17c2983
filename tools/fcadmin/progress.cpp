// The progress line: a thread that measures the destination every quarter second and rewrites one
// line on standard error; it gets out of the way of the host's password prompt and holds still while
// another program reads a secret on the same terminal.
#include "tools/fcadmin/progress.h"

#include "common/format.h"
#include "host/prompt_observer.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>

// The host's prompt tells an observer when it shows a prompt and when the answer is in. A tool linked
// over another platform's services has no such notice; the reference then stays null.
namespace fcadmin::host {
void set_prompt_observer(PromptObserver observer) __attribute__((weak));
}

namespace fcadmin_tool {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kInterval = std::chrono::milliseconds(250);
constexpr char kErase[] = "\r\033[K";

// Size of the file, or the sum of the regular files directly in the directory; -1 when it is missing.
int64_t measure_bytes(ProgressLine::Measure measure, const std::string &path) {
    struct stat st {};
    if (measure == ProgressLine::Measure::file) return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr) return -1;
    int64_t total = 0;
    while (const dirent *entry = readdir(dir))
        if (fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode))
            total += st.st_size;
    closedir(dir);
    return total;
}

// "512 B", "12.5 MiB".
std::string human(double bytes) {
    static const char *const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    for (; bytes >= 1024 && unit + 1 < std::size(kUnits); ++unit) bytes /= 1024;
    char text[32];
    fcadmin::bounded_format(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
    return text;
}

// A program that reads a secret on the terminal (ssh asking for a key's passphrase) turns echo off;
// the line then waits rather than write over its question.
bool terminal_echoes() {
    struct termios settings {};
    return tcgetattr(STDERR_FILENO, &settings) != 0 || (settings.c_lflag & ECHO) != 0;
}

void write_all(const std::string &text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t n = write(STDERR_FILENO, text.data() + done, text.size() - done);
        if (n <= 0 && errno != EINTR) return;
        if (n > 0) done += static_cast<size_t>(n);
    }
}

}  // namespace

struct ProgressLine::State {
    State(const char *label_text, Measure what, std::string where)
        : label(label_text), path(std::move(where)), measure(what) {}
    std::string label, path;
    Measure measure;
    Clock::time_point start = Clock::now();
    std::mutex lock;
    std::condition_variable wake;
    bool stopping = false, prompting = false, shown = false;
    std::thread thread;

    // Holding the lock: rewrites the line, or erases it while a prompt is on the terminal.
    void show(int64_t bytes) {
        if (prompting) return erase();
        if (!terminal_echoes()) return;
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        std::string text = kErase + label + ": " + human(static_cast<double>(bytes));
        if (measure == Measure::file)
            text += ", " + human(seconds > 0 ? static_cast<double>(bytes) / seconds : 0) + "/s";
        else
            text += " staged, " + std::to_string(static_cast<long>(seconds)) + " s";
        write_all(text);
        shown = true;
    }
    void erase() {
        if (shown) write_all(kErase);
        shown = false;
    }
    void run() {
        const int64_t initial = measure_bytes(measure, path);
        int64_t staged = -1;
        bool changed = false;
        std::unique_lock<std::mutex> guard(lock);
        while (!wake.wait_for(guard, kInterval, [this] { return stopping; })) {
            int64_t bytes = measure_bytes(measure, path);
            // The export empties its staging directory when it is done: what was staged stays shown.
            if (measure == Measure::directory) bytes = staged = std::max(staged, bytes);
            changed = changed || bytes != initial;
            if (changed && bytes >= 0) show(bytes);
        }
        erase();
    }
};

namespace {

ProgressLine::State *active = nullptr;  // set and cleared by the thread that runs the transfer

void observe_prompt(bool prompting) {
    if (active == nullptr) return;
    std::lock_guard<std::mutex> guard(active->lock);
    active->prompting = prompting;
    if (prompting) active->erase();
}

}  // namespace

ProgressLine::ProgressLine(const char *label, Measure measure, std::string path, bool wanted) {
    if (!wanted || isatty(STDERR_FILENO) != 1) return;
    state_ = std::make_unique<State>(label, measure, std::move(path));
    // The thread takes no signal: the command runner waits for its tools with SIGCHLD blocked in the
    // calling thread, and the signals it ignores must not end up here either.
    sigset_t all, saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    state_->thread = std::thread([state = state_.get()] { state->run(); });
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    active = state_.get();
    if (fcadmin::host::set_prompt_observer != nullptr) fcadmin::host::set_prompt_observer(observe_prompt);
}

ProgressLine::~ProgressLine() {
    if (state_ == nullptr) return;
    if (fcadmin::host::set_prompt_observer != nullptr) fcadmin::host::set_prompt_observer(nullptr);
    active = nullptr;
    {
        std::lock_guard<std::mutex> guard(state_->lock);
        state_->stopping = true;
    }
    state_->wake.notify_one();
    state_->thread.join();
}

}  // namespace fcadmin_tool
