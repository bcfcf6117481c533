// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <vector>

namespace gatewaytest {

// Block n of a numbered run: its size walks through 0..maxSize (both ends included; empty blocks
// never adjacent) and its bytes derive from n, so that a lost, repeated, reordered or torn block
// shows.
inline std::vector<unsigned char> NumberedBlock(unsigned n, std::size_t maxSize) {
    const std::size_t size = n % 7 == 3   ? 0
                             : n % 5 == 0 ? 1
                             : n % 5 == 1 ? maxSize
                                          : 1 + (n * 7919u) % maxSize;
    std::vector<unsigned char> block(size);
    for (std::size_t i = 0; i < size; ++i) {
        block[i] = static_cast<unsigned char>((n * 131u + i * 7u) ^ (i >> 8) ^ (n >> 8));
    }
    return block;
}

}  // namespace gatewaytest
