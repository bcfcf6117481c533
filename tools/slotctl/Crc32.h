// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

namespace mcap {

// CRC-32 (IEEE, reflected, as zlib computes it). Chain calls by passing the previous result;
// start with 0. Uses carry-less multiplication where the CPU has it, else tables.
std::uint32_t Crc32(std::uint32_t crc, const void* data, size_t size);

// The two ways Crc32 computes, each callable on its own (the tests compare them with the
// bit-at-a-time definition).
namespace crc32 {
// Tables, eight bytes at a time; any CPU.
std::uint32_t Sliced(std::uint32_t crc, const void* data, size_t size);
// Whether this CPU can run Folded.
bool FoldedAvailable();
// Folding with carry-less multiplication (PCLMULQDQ), 64 bytes at a time; only where
// FoldedAvailable(). Where the build has no such instructions, the same as Sliced.
std::uint32_t Folded(std::uint32_t crc, const void* data, size_t size);
}  // namespace crc32

}  // namespace mcap
