// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>

#include <string>

// Names of the slot and file-output elements and attributes of the system's configuration files.
// Each constant is defined once, in ConfigurationTags.cpp.
namespace Configuration {
namespace Object {
SLOT_EXPORT extern const std::string slotTag;
SLOT_EXPORT extern const std::string fileOutputTag;
namespace Slot {
SLOT_EXPORT extern const std::string maxSizeTag;
SLOT_EXPORT extern const std::string updateTimeTag;
SLOT_EXPORT extern const std::string maxBufferLengthTag;
SLOT_EXPORT extern const std::string typeTag;
namespace Type {
SLOT_EXPORT extern const std::string reliableTag;
SLOT_EXPORT extern const std::string discardingTag;
SLOT_EXPORT extern const std::string posixPipeTag;
SLOT_EXPORT extern const std::string winPipeTag;
}  // namespace Type
}  // namespace Slot
namespace FileOutput {
SLOT_EXPORT extern const std::string filenameTag;
SLOT_EXPORT extern const std::string tstampedFilenameTag;
SLOT_EXPORT extern const std::string appendTag;
SLOT_EXPORT extern const std::string formatTag;
SLOT_EXPORT extern const std::string rotatableTag;
SLOT_EXPORT extern const std::string maxFilesIndexTag;
namespace SizeAbbreviations {
SLOT_EXPORT extern const std::string kiloBytesTag;
SLOT_EXPORT extern const std::string megaBytesTag;
SLOT_EXPORT extern const std::string gigaBytesTag;
}  // namespace SizeAbbreviations
}  // namespace FileOutput
}  // namespace Object
}  // namespace Configuration
