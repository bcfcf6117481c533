// SPDX-License-Identifier: Apache-2.0
#include "Crc32.h"

#include <array>

#if defined(__x86_64__) || defined(__i386__)
#define SLOT_CRC_FOLDING 1
#include <immintrin.h>
#endif

namespace mcap {
namespace crc32 {

namespace {

// The polynomial, bit-reflected (x^0 in the top bit).
const std::uint32_t Polynomial = 0xedb88320u;

// table[k][b] is the CRC register after byte b followed by k zero bytes.
typedef std::array<std::array<std::uint32_t, 256>, 8> Tables;

Tables MakeTables() {
    Tables tables{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t c = i;
        for (int k = 0; k < 8; ++k) {
            c = (c & 1) ? Polynomial ^ (c >> 1) : c >> 1;
        }
        tables[0][i] = c;
    }
    for (std::uint32_t i = 0; i < 256; ++i) {
        for (size_t k = 1; k < 8; ++k) {
            tables[k][i] = (tables[k - 1][i] >> 8) ^ tables[0][tables[k - 1][i] & 0xff];
        }
    }
    return tables;
}

// The register (not inverted) after `size` more bytes.
std::uint32_t SlicedRegister(std::uint32_t crc, const unsigned char* p, size_t size) {
    static const Tables t = MakeTables();
    for (; size >= 8; size -= 8, p += 8) {
        const std::uint32_t low = crc ^ (std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 |
                                         std::uint32_t(p[2]) << 16 | std::uint32_t(p[3]) << 24);
        crc = t[7][low & 0xff] ^ t[6][(low >> 8) & 0xff] ^ t[5][(low >> 16) & 0xff] ^
              t[4][low >> 24] ^ t[3][p[4]] ^ t[2][p[5]] ^ t[1][p[6]] ^ t[0][p[7]];
    }
    for (; size > 0; --size, ++p) {
        crc = t[0][(crc ^ *p) & 0xff] ^ (crc >> 8);
    }
    return crc;
}

#ifdef SLOT_CRC_FOLDING

// x^n modulo the polynomial, bit-reflected and shifted left by one: the form in which a 64-bit
// lane of reflected data, multiplied carry-less by it, moves n - 32 bits further on (or n + 32
// for the upper lane's partner).
std::uint64_t FoldConstant(unsigned n) {
    // In reflected form multiplying by x is a right shift, and x^0 is the top bit.
    std::uint32_t r = 0x80000000u;
    for (unsigned i = 0; i < n; ++i) {
        r = (r & 1) ? (r >> 1) ^ Polynomial : r >> 1;
    }
    return std::uint64_t(r) << 1;
}

// Pairs of fold constants, low lane first, as a 128-bit load wants them.
struct FoldConstants {
    std::uint64_t by4[2];  // 512 bits on: the low lane times x^544, the high lane times x^480
    std::uint64_t by1[2];  // 128 bits on: the low lane times x^160, the high lane times x^96
};

FoldConstants MakeFoldConstants() {
    return FoldConstants{{FoldConstant(544), FoldConstant(480)},
                         {FoldConstant(160), FoldConstant(96)}};
}

__attribute__((target("pclmul,sse4.1"))) inline __m128i Fold(__m128i x, __m128i k, __m128i next) {
    const __m128i low = _mm_clmulepi64_si128(x, k, 0x00);
    const __m128i high = _mm_clmulepi64_si128(x, k, 0x11);
    return _mm_xor_si128(_mm_xor_si128(low, high), next);
}

// Folds 16-byte lanes so that the last 16 bytes stand for everything before them: a message
// and its folded remainder leave the same CRC register. The register starts as zero with the
// incoming one XORed into the first four bytes, which is the same thing.
__attribute__((target("pclmul,sse4.1"))) std::uint32_t FoldedRegister(std::uint32_t crc,
                                                                      const unsigned char* p,
                                                                      size_t size) {
    if (size < 64) {
        return SlicedRegister(crc, p, size);
    }
    static const FoldConstants constants = MakeFoldConstants();
    const __m128i by4 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(constants.by4));
    const __m128i by1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(constants.by1));
    const __m128i* in = reinterpret_cast<const __m128i*>(p);
    __m128i x0 = _mm_xor_si128(_mm_loadu_si128(in), _mm_cvtsi32_si128(static_cast<int>(crc)));
    __m128i x1 = _mm_loadu_si128(in + 1);
    __m128i x2 = _mm_loadu_si128(in + 2);
    __m128i x3 = _mm_loadu_si128(in + 3);
    in += 4;
    size -= 64;
    for (; size >= 64; size -= 64, in += 4) {
        x0 = Fold(x0, by4, _mm_loadu_si128(in));
        x1 = Fold(x1, by4, _mm_loadu_si128(in + 1));
        x2 = Fold(x2, by4, _mm_loadu_si128(in + 2));
        x3 = Fold(x3, by4, _mm_loadu_si128(in + 3));
    }
    __m128i x = Fold(Fold(Fold(x0, by1, x1), by1, x2), by1, x3);
    for (; size >= 16; size -= 16, ++in) {
        x = Fold(x, by1, _mm_loadu_si128(in));
    }
    unsigned char rest[16];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(rest), x);
    return SlicedRegister(SlicedRegister(0, rest, sizeof(rest)),
                          reinterpret_cast<const unsigned char*>(in), size);
}

#endif

}  // namespace

std::uint32_t Sliced(std::uint32_t crc, const void* data, size_t size) {
    return ~SlicedRegister(~crc, static_cast<const unsigned char*>(data), size);
}

bool FoldedAvailable() {
#ifdef SLOT_CRC_FOLDING
    static const bool available =
        __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
    return available;
#else
    return false;
#endif
}

std::uint32_t Folded(std::uint32_t crc, const void* data, size_t size) {
#ifdef SLOT_CRC_FOLDING
    return ~FoldedRegister(~crc, static_cast<const unsigned char*>(data), size);
#else
    return Sliced(crc, data, size);
#endif
}

}  // namespace crc32

std::uint32_t Crc32(std::uint32_t crc, const void* data, size_t size) {
    static const bool folded = crc32::FoldedAvailable();
    return folded ? crc32::Folded(crc, data, size) : crc32::Sliced(crc, data, size);
}

}  // namespace mcap
