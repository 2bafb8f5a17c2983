// The library's trace convention: bounded 128-byte lines on two channels, general and detail.
#pragma once

namespace fcadmin {

enum class TraceChannel { general, detail };

// Writes one line on a channel: clears the channel's buffer, formats into it with a bound of 128 and
// stores it with the channel's handle, module id, level and 5. The store's result is ignored.
void trace_line(TraceChannel channel, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Writes one line on the general channel, first echoed to standard output (a newline, the text, a
// newline) while the debug marker file is readable.
void trace_general_echo(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace fcadmin
