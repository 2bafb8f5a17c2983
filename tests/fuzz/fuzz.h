// What the fuzz targets share: the headers of what they take apart, the entry, and a check that aborts.
#pragma once

#include "fcadmin.h"
#include "fileutil/crc16.h"
#include "tests/support/oracles.h"
#include "tools/fcadmin/url.h"
#include "xfer/runner.h"

#include <algorithm>
#include <cstring>
#include <vector>

// FUZZ_TARGET(data, size) { ... } takes one input in a buffer of exactly its size. A failed FUZZ_CHECK aborts,
// and libFuzzer keeps the input as a crash.
#define FUZZ_TARGET(data, size)                                                                              \
    static void fuzz_one(const uint8_t *data, size_t size);                                                  \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) { return fuzz_one(data, size), 0; } \
    static void fuzz_one(const uint8_t *data, size_t size)
#define FUZZ_CHECK(cond) ((cond) ? (void)0 : (fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond), abort()))

inline std::string fuzz_c_string(const uint8_t *data, size_t size) {  // up to the first NUL, as a caller holds it
    return std::string(reinterpret_cast<const char *>(data), size).c_str();
}
