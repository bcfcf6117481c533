// SPDX-License-Identifier: Apache-2.0
#include <shared/FileHelpers.h>

namespace shared {

// TouchFile is defined beside FileLock, whose registry it takes (FileLock.cpp).

std::string FormatNothing(SizedArray& data) {
    return data.empty() ? std::string() : std::string(data.data(), data.size());
}

}  // namespace shared
