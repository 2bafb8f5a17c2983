// The progress line of a transfer on a terminal: bytes so far and the rate, rewritten in place on
// standard error while the library's call runs, and erased when it returns.
#pragma once

#include <memory>
#include <string>

namespace fcadmin_tool {

class ProgressLine {
public:
    // What the line measures: one growing file (the fetch's destination), or the regular files staged
    // in a directory (the export's staging directory).
    enum class Measure { file, directory };

    // Shows nothing unless `wanted` (no --quiet) and standard error is a terminal. The line appears once
    // the measured size differs from what it was at the start, so a stale destination shows nothing.
    ProgressLine(const char *label, Measure measure, std::string path, bool wanted);
    // Stops the updates and erases the line.
    ~ProgressLine();
    ProgressLine(const ProgressLine &) = delete;
    ProgressLine &operator=(const ProgressLine &) = delete;

    struct State;

private:
    std::unique_ptr<State> state_;  // null when nothing is shown
};

}  // namespace fcadmin_tool
