// File digest (get_crc, get_crc2) and the CRC-16/ARC checksum with its lookup table.
#include "fileutil/crc16.h"

#include "common/unique_fd.h"
#include "fcadmin.h"
#include "fcadmin_platform.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__x86_64__)
#include <cpuid.h>
#include <emmintrin.h>
#include <wmmintrin.h>
#endif

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

// Slicing by sixteen: slice k holds the crc of byte i followed by k zero bytes, so one step folds sixteen
// bytes with sixteen independent look-ups instead of a chain of sixteen dependent ones.
constexpr size_t kSlices = 16;
struct SliceTables {
    uint16_t slice[kSlices][256];
};

constexpr SliceTables make_slice_tables() {
    SliceTables t{};
    for (uint32_t i = 0; i < 256; ++i) t.slice[0][i] = crc16_table_entry(i);
    for (size_t k = 1; k < kSlices; ++k)
        for (uint32_t i = 0; i < 256; ++i) {
            const uint16_t previous = t.slice[k - 1][i];
            t.slice[k][i] = static_cast<uint16_t>((previous >> 8) ^ t.slice[0][previous & 0xFFu]);
        }
    return t;
}

constexpr SliceTables kSliceTables = make_slice_tables();

// Little-endian whatever the host's order: the first byte of the buffer meets the crc's low byte.
inline uint32_t load_le32(const unsigned char *p) {
    return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

inline uint32_t slice_word(uint32_t word, size_t first) {
    const auto &t = kSliceTables.slice;
    return t[first][word & 0xFFu] ^ t[first - 1][(word >> 8) & 0xFFu] ^ t[first - 2][(word >> 16) & 0xFFu] ^
           t[first - 3][word >> 24];
}

}  // namespace

uint32_t crc16_portable(uint32_t crc, const unsigned char *data, size_t length) {
    crc &= 0xFFFFu;
    for (; length >= kSlices; data += kSlices, length -= kSlices)
        crc = slice_word(load_le32(data) ^ crc, 15) ^ slice_word(load_le32(data + 4), 11) ^
              slice_word(load_le32(data + 8), 7) ^ slice_word(load_le32(data + 12), 3);
    for (; length > 0; ++data, --length) crc = kSliceTables.slice[0][(crc ^ *data) & 0xFFu] ^ (crc >> 8);
    return crc;
}

namespace {

// Large files are read into fresh anonymous memory in huge pages where the kernel offers them: a few
// hundred page faults instead of tens of thousands. The file itself is never mapped, so a file that
// shrinks while it is read cannot raise SIGBUS.
constexpr size_t kMappedDigestMinimum = size_t{4} << 20;
constexpr size_t kHugePage = size_t{2} << 20;

// The whole content of a file for one digest call, uninitialised until read_at_most fills it.
class DigestBuffer {
public:
    explicit DigestBuffer(size_t size) {
        if (size < kMappedDigestMinimum) {
            data_ = static_cast<unsigned char *>(malloc(size > 0 ? size : 1));
            return;
        }
        // Whole huge pages, and room to start them on a huge-page boundary; the slack on either side
        // is given back.
        const size_t mapped = (size + kHugePage - 1) & ~(kHugePage - 1);
        const size_t reserved = mapped + kHugePage;
        void *area = mmap(nullptr, reserved, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (area == MAP_FAILED) return;
        const auto start = reinterpret_cast<uintptr_t>(area);
        const uintptr_t aligned = (start + kHugePage - 1) & ~uintptr_t{kHugePage - 1};
        if (aligned > start) munmap(area, aligned - start);
        if (start + reserved > aligned + mapped)
            munmap(reinterpret_cast<void *>(aligned + mapped), start + reserved - aligned - mapped);
        data_ = reinterpret_cast<unsigned char *>(aligned);
        mapped_ = mapped;
        madvise(data_, mapped_, MADV_HUGEPAGE);  // advice only: small pages work as well
    }
    DigestBuffer(const DigestBuffer &) = delete;
    DigestBuffer &operator=(const DigestBuffer &) = delete;
    ~DigestBuffer() {
        if (mapped_ > 0)
            munmap(data_, mapped_);
        else
            free(data_);
    }

    bool valid() const { return data_ != nullptr; }
    unsigned char *data() const { return data_; }

private:
    unsigned char *data_ = nullptr;
    size_t mapped_ = 0;
};

// Reads from the start of the file until size bytes are in or the file ends; zeros fill the rest.
void read_at_most(int fd, unsigned char *buffer, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t got =
            retry_eintr([&] { return pread(fd, buffer + done, size - done, static_cast<off_t>(done)); });
        if (got <= 0) break;
        done += static_cast<size_t>(got);
    }
    memset(buffer + done, 0, size - done);
}

}  // namespace

#if defined(__x86_64__)
namespace {

// Carry-less folding, as for a 32-bit reflected crc: the CRC-16 register is the register of a 32-bit crc
// whose generator is the 16-bit polynomial times x^16 (reflected 0x0000A001), since M x^32 mod P x^16
// equals x^16 (M x^16 mod P). Each 128-bit block stands for a polynomial; folding it forward by D bits
// multiplies its two halves by x^(D+64) and x^D modulo that generator, which keeps the remainder. The
// folded block is then run through the tables like sixteen message bytes.
constexpr uint64_t kGenerator = 0x180050000ull;  // x^32 + x^31 + x^18 + x^16

// x^(exponent - 1) mod the generator, reflected into the high half of a 64-bit lane: the product of
// two reflected 64-bit lanes comes out one degree short, and the missing x is taken off here.
constexpr uint64_t fold_constant(unsigned exponent) {
    uint64_t remainder = 1;
    for (unsigned i = 1; i < exponent; ++i) {
        remainder <<= 1;
        if (remainder & (uint64_t{1} << 32)) remainder ^= kGenerator;
    }
    uint64_t reflected = 0;
    for (unsigned degree = 0; degree < 32; ++degree)
        if ((remainder >> degree) & 1u) reflected |= uint64_t{1} << (63 - degree);
    return reflected;
}

constexpr size_t kBlock = 16;
constexpr size_t kLanes = 4;
constexpr size_t kClmulMinimum = 2 * kLanes * kBlock;

__attribute__((target("pclmul"))) inline __m128i fold(__m128i block, __m128i constants, __m128i next) {
    return _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(block, constants, 0x00),
                                       _mm_clmulepi64_si128(block, constants, 0x11)),
                         next);
}

inline __m128i load(const unsigned char *p) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p)); }

// Only called where the processor has PCLMULQDQ and the buffer holds at least kClmulMinimum bytes.
__attribute__((target("pclmul"))) uint32_t fold_and_finish(uint32_t crc, const unsigned char *data, size_t length) {
    // Low lane: the block's first eight bytes (the higher powers); high lane: the last eight.
    const __m128i by_four = _mm_set_epi64x(static_cast<long long>(fold_constant(kLanes * 128)),
                                           static_cast<long long>(fold_constant(kLanes * 128 + 64)));
    const __m128i by_one = _mm_set_epi64x(static_cast<long long>(fold_constant(128)),
                                          static_cast<long long>(fold_constant(128 + 64)));
    __m128i x0 = _mm_xor_si128(load(data), _mm_cvtsi32_si128(static_cast<int>(crc & 0xFFFFu)));
    __m128i x1 = load(data + 16), x2 = load(data + 32), x3 = load(data + 48);
    data += kLanes * kBlock;
    length -= kLanes * kBlock;
    for (; length >= kLanes * kBlock; data += kLanes * kBlock, length -= kLanes * kBlock) {
        x0 = fold(x0, by_four, load(data));
        x1 = fold(x1, by_four, load(data + 16));
        x2 = fold(x2, by_four, load(data + 32));
        x3 = fold(x3, by_four, load(data + 48));
    }
    __m128i x = fold(fold(fold(x0, by_one, x1), by_one, x2), by_one, x3);
    for (; length >= kBlock; data += kBlock, length -= kBlock) x = fold(x, by_one, load(data));
    unsigned char folded[kBlock];
    _mm_storeu_si128(reinterpret_cast<__m128i *>(folded), x);
    return crc16_portable(crc16_portable(0, folded, kBlock), data, length);
}

}  // namespace

bool crc16_clmul_available() {
    static const bool available = [] {
        unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
        return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & bit_PCLMUL) != 0;
    }();
    return available;
}

// Falls back to the tables where the processor lacks PCLMULQDQ or the buffer is too short to pay.
uint32_t crc16_clmul(uint32_t crc, const unsigned char *data, size_t length) {
    if (length < kClmulMinimum || !crc16_clmul_available()) return crc16_portable(crc, data, length);
    return fold_and_finish(crc, data, length);
}

#else

bool crc16_clmul_available() { return false; }

uint32_t crc16_clmul(uint32_t crc, const unsigned char *data, size_t length) {
    return crc16_portable(crc, data, length);
}

#endif

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

// The same value as the byte-by-byte loop over crc_table16, taken by the fastest way this processor has.
uint32_t crc16_compute(const unsigned char *data, int32_t length) {
    if (data == nullptr || length <= 0) return 0;
    return fcadmin::crc16_clmul(0, data, static_cast<size_t>(length));
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

    fcadmin::DigestBuffer buffer(size);
    if (!buffer.valid()) return 0;
    // What the file still holds of that size; a file that shrank under us leaves zeros after its end, and
    // one that grew is read only as far as the size found above.
    fcadmin::read_at_most(fileno(file), buffer.data(), size);

    unsigned char digest[fcadmin::kMd5DigestSize] = {};
    MD5_hash_compute(digest, buffer.data(), static_cast<uint32_t>(size));
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
