// The host trace ring: the last lines stored through trace_module_store_lvl, kept in this process for
// the fcadmin tool to dump. Internal to the host services (hidden); not part of any exported interface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace fcadmin::host {

// One stored line: "2024-05-01T12:00:00.123456Z 305 2 text", cut to fit.
inline constexpr size_t kTraceLineSize = 256;
// Lines kept; older ones are overwritten and counted as dropped.
inline constexpr size_t kTraceRingLines = 512;

// Appends one finished line (without newline) to the ring. Thread-safe.
void trace_ring_append(const char *line);

// Calls visit for each line held now, oldest first, under the ring's lock: visit must not trace.
// Returns the number of lines visited.
size_t trace_ring_visit(void (*visit)(const char *line, void *context), void *context);

// Writes the lines held now to out, one a line, oldest first, preceded by a note when older lines were
// dropped. Returns the number of lines written.
size_t trace_ring_dump(FILE *out);

// Lines held now, and lines overwritten since the last clear.
size_t trace_ring_size();
uint64_t trace_ring_dropped();

// Forgets every line.
void trace_ring_clear();

}  // namespace fcadmin::host
