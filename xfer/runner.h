// The command runner's internals: the word splitter and the two ways of starting the tool. Hidden
// symbols, reachable from tests and benchmarks through the static library.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fcadmin {

// The command is cut to 9,598 bytes after a leading blank; a word to 399 bytes. A command of 23 words or
// more is refused before anything starts.
inline constexpr size_t kCommandBytes = 9598;
inline constexpr size_t kWordBytes = 399;
inline constexpr int kWordSlots = 24;
inline constexpr int kTooManyWords = 23;
static_assert(kTooManyWords < kWordSlots, "the argument vector needs room for its null entry");

struct CommandWords {
    char slots[kWordSlots][kWordBytes + 1];
    char *argv[kWordSlots];  // the words in order, then a null entry
    int count;
};

// Splits at blanks only: tabs and other white space stay inside a word, and nothing is quoted or
// escaped. Returns false when the text holds too many words.
bool split_words(const char *text, CommandWords &words);

// fork: the child is a copy of the caller (a page-table copy of the whole address space, and a commit
// charge for it), kept as the reference the other is checked against. clone: the child borrows the
// caller's memory until it execs (CLONE_VM | CLONE_VFORK), whatever the caller's size; the default.
enum class Launcher { fork, clone };

// admin_system_call with a chosen launcher; every observable effect is the same for both.
int32_t system_call(const char *command, Launcher launcher);

}  // namespace fcadmin
