// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <optional>
#include <string>

namespace shared {

// Configures log4cxx from the file `path`, as the project's programs (slotctl, slot-gateway) do
// for --log-config: with DOMConfigurator when the name ends in ".xml", as a properties file
// otherwise. A file that cannot be read (missing, no permission, a folder) configures nothing:
// the answer is then what is wrong, "cannot read log configuration '<path>': <reason>";
// std::nullopt once log4cxx is configured. Internal to the programs: this header is not
// installed.
[[nodiscard]] SHARED_EXPORT std::optional<std::string> ConfigureLoggingFromFile(
    const std::string& path);

}  // namespace shared
