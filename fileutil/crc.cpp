// File digest (get_crc, get_crc2) and the CRC-16/ARC checksum with its lookup table.
#include "fileutil/crc16.h"

#include "common/unique_fd.h"
#include "fcadmin.h"
#include "fcadmin_platform.h"

#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>

namespace fcadmin {
namespace {

// CRC-16/ARC: polynomial 0x8005 taken in reflected form.
constexpr uint16_t kCrc16ReflectedPolynomial = 0xA001;
constexpr size_t kMd5DigestSize = 16;

constexpr uint16_t crc16_table_entry(uint32_t index) {
    uint32_t value = index;
    for (int round = 0; round < 8; ++round) value = (value & 1u) ? (value >> 1) ^ kCrc16ReflectedPolynomial : value >> 1;
    return static_cast<uint16_t>(value);
}

// The whole table run over the check string at compile time: a wrong entry anywhere changes the result.
constexpr uint16_t crc16_check_value() {
    const char check[] = "123456789";
    uint32_t crc = 0;
    for (int i = 0; i < 9; ++i)
        crc = crc16_table_entry((crc ^ static_cast<unsigned char>(check[i])) & 0xFFu) ^ (crc >> 8);
    return static_cast<uint16_t>(crc);
}

static_assert(crc16_table_entry(0) == 0x0000 && crc16_table_entry(1) == 0xC0C1 &&
              crc16_table_entry(2) == 0xC181 && crc16_table_entry(3) == 0x0140);
static_assert(crc16_table_entry(0x80) == 0xA001 && crc16_table_entry(0xFF) == 0x4040);
static_assert(crc16_check_value() == 0xBB3D);

}  // namespace
}  // namespace fcadmin

#define FCADMIN_CRC16_ROW4(i)                                                                 \
    fcadmin::crc16_table_entry(i), fcadmin::crc16_table_entry(i + 1), fcadmin::crc16_table_entry(i + 2), \
        fcadmin::crc16_table_entry(i + 3)
#define FCADMIN_CRC16_ROW16(i) \
    FCADMIN_CRC16_ROW4(i), FCADMIN_CRC16_ROW4(i + 4), FCADMIN_CRC16_ROW4(i + 8), FCADMIN_CRC16_ROW4(i + 12)
#define FCADMIN_CRC16_ROW64(i) \
    FCADMIN_CRC16_ROW16(i), FCADMIN_CRC16_ROW16(i + 16), FCADMIN_CRC16_ROW16(i + 32), FCADMIN_CRC16_ROW16(i + 48)

extern "C" {

// Exported writable data, as callers have always linked against it; constinit keeps it out of any
// run-time initialisation, so it is valid before the first constructor runs.
constinit uint16_t crc_table16[256] = {
    FCADMIN_CRC16_ROW64(0), FCADMIN_CRC16_ROW64(64), FCADMIN_CRC16_ROW64(128), FCADMIN_CRC16_ROW64(192),
};

uint32_t crc16_compute(const unsigned char *data, int32_t length) {
    if (data == nullptr || length <= 0) return 0;
    uint32_t crc = 0;
    for (int32_t i = 0; i < length; ++i) crc = crc_table16[(crc ^ data[i]) & 0xFFu] ^ (crc >> 8);
    return crc;
}

// Named a checksum, but the value is the head of an MD5 digest; stored values depend on it, keep it so.
// 0 for a file that cannot be opened, which a real digest can also produce.
int32_t get_crc(const char *path) {
    if (path == nullptr) return 0;
    FILE *file = fopen(path, "r");
    if (file == nullptr) return 0;
    fcadmin::scope_exit close_file([file] { fclose(file); });
    // A directory opens for reading on Linux, but has no content to digest and may report an end
    // position of gigabytes; it counts as a file that cannot be opened.
    struct stat status;
    if (fstat(fileno(file), &status) == 0 && S_ISDIR(status.st_mode)) return 0;

    long end = fseek(file, 0, SEEK_END) == 0 ? ftell(file) : 0;
    size_t size = end > 0 ? static_cast<size_t>(end) : 0;
    fseek(file, 0, SEEK_SET);
    // The platform digest takes a 32-bit length; a larger file (possible only on a 64-bit host) has no
    // value that the device could have stored.
    if (size > UINT32_MAX) return 0;

    // Zero-filled and never of size 0, so an empty file and a file that shrank under us still hash a
    // defined buffer of the size found above.
    unsigned char *buffer = static_cast<unsigned char *>(calloc(size > 0 ? size : 1, 1));
    if (buffer == nullptr) return 0;
    fcadmin::scope_exit free_buffer([buffer] { free(buffer); });
    if (size > 0 && fread(buffer, size, 1, file) != 1) {
        // A short read leaves the rest of the buffer zero: the digest covers the size found above all
        // the same, as the stored values expect.
    }

    unsigned char digest[fcadmin::kMd5DigestSize] = {};
    MD5_hash_compute(digest, buffer, static_cast<uint32_t>(size));
    // Big-endian whatever the host's byte order: the device and a host must agree on stored values.
    uint32_t value = (uint32_t{digest[0]} << 24) | (uint32_t{digest[1]} << 16) | (uint32_t{digest[2]} << 8) |
                     uint32_t{digest[3]};
    return static_cast<int32_t>(value);
}

// The sum wraps modulo 2^32; a file that cannot be opened adds 0.
int32_t get_crc2(const char *path1, const char *path2) {
    uint32_t sum = static_cast<uint32_t>(get_crc(path1)) + static_cast<uint32_t>(get_crc(path2));
    return static_cast<int32_t>(sum);
}

}  // extern "C"
