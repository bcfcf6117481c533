// SPDX-License-Identifier: Apache-2.0
// The CRC-32 of recordings: each way of computing it against the bit-at-a-time definition, on
// every short length, at every alignment, in chained pieces, and over megabytes.
#include "Crc32.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

// The definition: reflected polynomial 0xedb88320, register inverted before and after.
std::uint32_t Bitwise(std::uint32_t crc, const unsigned char* p, size_t size) {
    crc = ~crc;
    for (size_t i = 0; i < size; ++i) {
        crc ^= p[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1) ? (crc >> 1) ^ 0xedb88320u : crc >> 1;
        }
    }
    return ~crc;
}

std::vector<unsigned char> RandomBytes(size_t size, std::mt19937& random) {
    std::vector<unsigned char> bytes(size);
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(random());
    }
    return bytes;
}

struct Way {
    const char* name;
    std::uint32_t (*crc)(std::uint32_t, const void*, size_t);
    bool (*available)();
};

bool Always() {
    return true;
}

class McapCrc32 : public ::testing::TestWithParam<Way> {
protected:
    void SetUp() override {
        if (!GetParam().available()) {
            GTEST_SKIP() << GetParam().name << " needs instructions this CPU lacks";
        }
    }
    std::uint32_t Crc(std::uint32_t crc, const unsigned char* p, size_t size) const {
        return GetParam().crc(crc, p, size);
    }
};

TEST_P(McapCrc32, EveryShortLengthAtEveryAlignmentFromAnyStart) {
    EXPECT_EQ(0xcbf43926u, Crc(0, reinterpret_cast<const unsigned char*>("123456789"), 9));
    std::mt19937 random(25);
    const std::vector<unsigned char> bytes = RandomBytes(300 + 16, random);
    for (size_t align = 0; align < 16; ++align) {
        for (size_t size = 0; size <= 300; ++size) {
            // A start of 0 and a chained one (a CRC carried over from earlier bytes).
            for (const std::uint32_t start : {0u, 0x9b2c41f7u}) {
                ASSERT_EQ(Bitwise(start, &bytes[align], size), Crc(start, &bytes[align], size))
                    << "size " << size << ", alignment " << align << ", start " << start;
            }
        }
    }
}

TEST_P(McapCrc32, MegabytesInOneCallOrInRandomPiecesGiveTheSameCrc) {
    std::mt19937 random(64);
    // Not a multiple of the 64-byte stride, nor aligned.
    const std::vector<unsigned char> bytes = RandomBytes((3u << 20) + 4099, random);
    const unsigned char* p = &bytes[3];
    const size_t size = bytes.size() - 3;
    const std::uint32_t expected = Bitwise(0, p, size);
    EXPECT_EQ(expected, Crc(0, p, size));
    std::uint32_t chained = 0;
    for (size_t done = 0; done < size;) {
        // Pieces from empty to beyond 64 KiB, most of them short.
        const size_t piece =
            std::min<size_t>(size - done, random() % 4 == 0 ? random() % 70000 : random() % 200);
        chained = Crc(chained, p + done, piece);
        done += piece;
    }
    EXPECT_EQ(expected, chained);
}

INSTANTIATE_TEST_SUITE_P(
    Ways, McapCrc32,
    ::testing::Values(Way{"Crc32", mcap::Crc32, Always}, Way{"Sliced", mcap::crc32::Sliced, Always},
                      Way{"Folded", mcap::crc32::Folded, mcap::crc32::FoldedAvailable}),
    [](const ::testing::TestParamInfo<Way>& info) { return std::string(info.param.name); });

}  // namespace
