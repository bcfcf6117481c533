// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>
#include <shared/SizedArray.h>

#include <string>

namespace shared {

// Makes sure a file exists at `path` (creating it empty, mode 0666 less the umask) and returns
// the path to open. An existing file is not opened at all: opening and closing a descriptor of
// a file would drop the process's classic fcntl locks on it. Throws std::runtime_error when the
// file cannot be created.
SHARED_EXPORT std::string TouchFile(const std::string& path);

// The formatting function that adds nothing: the array's bytes as they are.
SHARED_EXPORT std::string FormatNothing(SizedArray& data);

}  // namespace shared
