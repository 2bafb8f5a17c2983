// CRC-16 and Base64 decoding, each against a plain baseline in the same run.
#include "fcadmin.h"
#include "fileutil/crc16.h"

#include <benchmark/benchmark.h>

#include <openssl/evp.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::vector<unsigned char> sample_bytes(size_t size) {
    std::vector<unsigned char> data(size);
    uint32_t state = 12345;
    for (auto &byte : data) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<unsigned char>(state >> 16);
    }
    return data;
}

// CRC-16/ARC bit by bit, without a table: the baseline.
uint32_t bitwise_crc16(const unsigned char *data, size_t length) {
    uint32_t crc = 0;
    for (size_t i = 0; i < length; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1u) ? (crc >> 1) ^ 0xA001u : crc >> 1;
    }
    return crc;
}

void BM_Crc16Table(benchmark::State &state) {
    auto data = sample_bytes(static_cast<size_t>(state.range(0)));
    if (crc16_compute(data.data(), static_cast<int32_t>(data.size())) != bitwise_crc16(data.data(), data.size()))
        state.SkipWithError("table and bitwise CRC differ");
    for (auto _ : state)
        benchmark::DoNotOptimize(crc16_compute(data.data(), static_cast<int32_t>(data.size())));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Crc16Table)->Arg(64)->Arg(4096)->Arg(1 << 20);

void BM_Crc16BitwiseBaseline(benchmark::State &state) {
    auto data = sample_bytes(static_cast<size_t>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(bitwise_crc16(data.data(), data.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Crc16BitwiseBaseline)->Arg(64)->Arg(4096)->Arg(1 << 20);

std::string sample_base64(size_t decoded_size) {
    auto data = sample_bytes(decoded_size);
    std::string text(4 * ((decoded_size + 2) / 3) + 1, '\0');
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()), data.data(), static_cast<int>(data.size()));
    text.resize(static_cast<size_t>(n));
    return text;
}

// A plain table-driven decoder into a malloc'd buffer, the same contract as base64decode: the baseline.
unsigned char *plain_base64_decode(const char *text, uint32_t length, uint32_t *decoded_length) {
    static const auto table = [] {
        struct Table { signed char value[256]; } t{};
        for (auto &v : t.value) v = -1;
        const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        for (int i = 0; i < 64; ++i) t.value[static_cast<unsigned char>(alphabet[i])] = static_cast<signed char>(i);
        return t;
    }();
    auto *out = static_cast<unsigned char *>(calloc((3 * uint64_t{length}) / 4 + 1, 1));
    uint32_t n = 0, bits = 0;
    int have = 0;
    for (uint32_t i = 0; i < length && text[i] != '='; ++i) {
        int v = table.value[static_cast<unsigned char>(text[i])];
        if (v < 0) break;
        bits = (bits << 6) | static_cast<uint32_t>(v);
        if ((have += 6) >= 8) {
            have -= 8;
            out[n++] = static_cast<unsigned char>(bits >> have);
        }
    }
    *decoded_length = n;
    return out;
}

void BM_Base64DecodeBio(benchmark::State &state) {
    std::string text = sample_base64(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        uint32_t length = 0;
        unsigned char *decoded = base64decode(text.data(), static_cast<uint32_t>(text.size()), &length);
        benchmark::DoNotOptimize(decoded);
        free(decoded);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Base64DecodeBio)->Arg(48)->Arg(4096)->Arg(65536);

void BM_Base64DecodePlainBaseline(benchmark::State &state) {
    std::string text = sample_base64(static_cast<size_t>(state.range(0)));
    uint32_t check = 0, expected = 0;
    unsigned char *mine = plain_base64_decode(text.data(), static_cast<uint32_t>(text.size()), &check);
    unsigned char *library = base64decode(text.data(), static_cast<uint32_t>(text.size()), &expected);
    if (check != expected || memcmp(mine, library, check) != 0) state.SkipWithError("baseline decodes differently");
    free(mine);
    free(library);
    for (auto _ : state) {
        uint32_t length = 0;
        unsigned char *decoded = plain_base64_decode(text.data(), static_cast<uint32_t>(text.size()), &length);
        benchmark::DoNotOptimize(decoded);
        free(decoded);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Base64DecodePlainBaseline)->Arg(48)->Arg(4096)->Arg(65536);

}  // namespace
