// CRC-16, Base64 decoding and the file digest, each against its floor or best alternative in the same
// run, next to the literal code they replaced.
#include "fcadmin.h"
#include "fcadmin_platform.h"
#include "fileutil/crc16.h"
#include "tests/support/oracles.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#if defined(__x86_64__)
#include <emmintrin.h>
#endif

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using fcadmin_test::literal_get_crc;
using fcadmin_test::one_byte_base64decode;

std::vector<unsigned char> sample_bytes(size_t size) {
    std::vector<unsigned char> data(size);
    uint32_t state = 12345;
    for (auto &byte : data) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<unsigned char>(state >> 16);
    }
    return data;
}

// The byte-table loop that crc16_compute was.
uint32_t byte_table_crc16(const unsigned char *data, int32_t length) {
    uint32_t crc = 0;
    for (int32_t i = 0; i < length; ++i) crc = crc_table16[(crc ^ data[i]) & 0xFFu] ^ (crc >> 8);
    return crc;
}

// The floor of any checksum: reading the bytes once, four independent accumulators wide.
uint64_t read_memory(const unsigned char *data, size_t length) {
#if defined(__x86_64__)
    __m128i a = _mm_setzero_si128(), b = a, c = a, d = a;
    size_t i = 0;
    for (; i + 64 <= length; i += 64) {
        a = _mm_add_epi64(a, _mm_loadu_si128(reinterpret_cast<const __m128i *>(data + i)));
        b = _mm_add_epi64(b, _mm_loadu_si128(reinterpret_cast<const __m128i *>(data + i + 16)));
        c = _mm_add_epi64(c, _mm_loadu_si128(reinterpret_cast<const __m128i *>(data + i + 32)));
        d = _mm_add_epi64(d, _mm_loadu_si128(reinterpret_cast<const __m128i *>(data + i + 48)));
    }
    __m128i sum = _mm_add_epi64(_mm_add_epi64(a, b), _mm_add_epi64(c, d));
    uint64_t lanes[2];
    _mm_storeu_si128(reinterpret_cast<__m128i *>(lanes), sum);
    uint64_t total = lanes[0] + lanes[1];
#else
    uint64_t total = 0;
    size_t i = 0;
#endif
    for (; i < length; ++i) total += data[i];
    return total;
}

template <typename F>
void crc_benchmark(benchmark::State &state, F crc) {
    const auto data = sample_bytes(static_cast<size_t>(state.range(0)));
    if (crc(data.data(), data.size()) != byte_table_crc16(data.data(), static_cast<int32_t>(data.size())))
        state.SkipWithError("differs from the byte table");
    for (auto _ : state) benchmark::DoNotOptimize(crc(data.data(), data.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void crc_sizes(benchmark::internal::Benchmark *b) {
    for (int64_t size = 64; size <= (int64_t{64} << 20); size *= 4) b->Arg(size);
}

const auto registered_crc = [] {
    benchmark::RegisterBenchmark("crc16/byte_table", [](benchmark::State &s) {
        crc_benchmark(s, [](const unsigned char *d, size_t n) { return byte_table_crc16(d, static_cast<int32_t>(n)); });
    })->Apply(crc_sizes);
    benchmark::RegisterBenchmark("crc16/compute", [](benchmark::State &s) {
        crc_benchmark(s, [](const unsigned char *d, size_t n) { return crc16_compute(d, static_cast<int32_t>(n)); });
    })->Apply(crc_sizes);
    benchmark::RegisterBenchmark("crc16/portable", [](benchmark::State &s) {
        crc_benchmark(s, [](const unsigned char *d, size_t n) { return fcadmin::crc16_portable(0, d, n); });
    })->Apply(crc_sizes);
    benchmark::RegisterBenchmark("memory_read", [](benchmark::State &s) {
        const auto data = sample_bytes(static_cast<size_t>(s.range(0)));
        for (auto _ : s) benchmark::DoNotOptimize(read_memory(data.data(), data.size()));
        s.SetBytesProcessed(static_cast<int64_t>(s.iterations()) * s.range(0));
    })->Arg(int64_t{64} << 20);
    return 0;
}();

std::string sample_base64(size_t decoded_size) {
    const auto data = sample_bytes(decoded_size);
    std::string text(4 * ((decoded_size + 2) / 3) + 1, '\0');
    const int n =
        EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()), data.data(), static_cast<int>(data.size()));
    text.resize(static_cast<size_t>(n));
    return text;
}

// The best alternative: OpenSSL's block decoder into a fresh buffer, the same contract as base64decode
// (the caller gets memory of its own), without the BIO chain.
unsigned char *evp_base64decode(const char *text, uint32_t length, uint32_t *decoded_length) {
    auto *buffer = static_cast<unsigned char *>(malloc((3 * uint64_t{length}) / 4 + 1));
    const int n = EVP_DecodeBlock(buffer, reinterpret_cast<const unsigned char *>(text), static_cast<int>(length));
    // EVP_DecodeBlock counts the bytes that padding stands for; drop them as a real decoder would.
    int padding = 0;
    while (padding < 2 && length > static_cast<uint32_t>(padding) && text[length - 1 - padding] == '=') ++padding;
    *decoded_length = n < padding ? 0 : static_cast<uint32_t>(n - padding);
    buffer[*decoded_length] = 0;
    return buffer;
}

template <typename F>
void base64_benchmark(benchmark::State &state, F decode) {
    const std::string text = sample_base64(static_cast<size_t>(state.range(0)));
    uint32_t length = 0;
    unsigned char *check = decode(text.data(), static_cast<uint32_t>(text.size()), &length);
    if (length != static_cast<uint32_t>(state.range(0)) || memcmp(check, sample_bytes(length).data(), length) != 0)
        state.SkipWithError("decodes wrongly");
    free(check);
    for (auto _ : state) {
        unsigned char *decoded = decode(text.data(), static_cast<uint32_t>(text.size()), &length);
        benchmark::DoNotOptimize(decoded);
        free(decoded);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

const auto registered_base64 = [] {
    benchmark::RegisterBenchmark("base64/base64decode", [](benchmark::State &s) {
        base64_benchmark(s, base64decode);
    })->Arg(1 << 20);
    benchmark::RegisterBenchmark("base64/one_byte_reads", [](benchmark::State &s) {
        base64_benchmark(s, one_byte_base64decode);
    })->Arg(1 << 20);
    benchmark::RegisterBenchmark("base64/evp_decode_block", [](benchmark::State &s) {
        base64_benchmark(s, evp_base64decode);
    })->Arg(1 << 20);
    return 0;
}();

constexpr size_t kDigestFileSize = size_t{256} << 20;

// One file of 256 MiB, written once and read from the page cache by every digest benchmark.
const std::string &digest_file() {
    static const std::string path = [] {
        const char *dir = getenv("TMPDIR");
        std::string name = std::string(dir != nullptr ? dir : "/tmp") + "/fcadmin_bench_digest.XXXXXX";
        const int fd = mkstemp(name.data());
        const auto block = sample_bytes(1 << 20);
        for (size_t done = 0; done < kDigestFileSize; done += block.size())
            if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) abort();
        close(fd);
        atexit([] { unlink(digest_file().c_str()); });
        return name;
    }();
    return path;
}

// The floor: MD5 streamed over 64 KiB reads into one reused buffer.
int32_t streaming_md5(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    EVP_MD_CTX *context = EVP_MD_CTX_new();
    EVP_DigestInit_ex(context, EVP_md5(), nullptr);
    static unsigned char block[64 << 10];
    for (ssize_t n; (n = read(fd, block, sizeof block)) > 0;) EVP_DigestUpdate(context, block, static_cast<size_t>(n));
    unsigned char digest[16];
    EVP_DigestFinal_ex(context, digest, nullptr);
    EVP_MD_CTX_free(context);
    close(fd);
    return static_cast<int32_t>((uint32_t{digest[0]} << 24) | (uint32_t{digest[1]} << 16) | (uint32_t{digest[2]} << 8) |
                                digest[3]);
}

template <typename F>
void digest_benchmark(benchmark::State &state, F digest) {
    const char *path = digest_file().c_str();
    if (digest(path) != streaming_md5(path)) state.SkipWithError("digest differs from streaming MD5");
    for (auto _ : state) benchmark::DoNotOptimize(digest(path));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kDigestFileSize));
}

const auto registered_digest = [] {
    benchmark::RegisterBenchmark("digest/get_crc", [](benchmark::State &s) {
        digest_benchmark(s, get_crc);
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("digest/literal_get_crc", [](benchmark::State &s) {
        digest_benchmark(s, literal_get_crc);
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("digest/streaming_md5", [](benchmark::State &s) {
        digest_benchmark(s, streaming_md5);
    })->Unit(benchmark::kMillisecond);
    return 0;
}();

}  // namespace
