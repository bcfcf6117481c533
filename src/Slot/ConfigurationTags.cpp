// SPDX-License-Identifier: Apache-2.0
#include <Slot/ConfigurationTags.h>

namespace Configuration {
namespace Object {
const std::string slotTag = "slot";
const std::string fileOutputTag = "file-output";
namespace Slot {
const std::string maxSizeTag = "max-size";
const std::string updateTimeTag = "update-time";
const std::string maxBufferLengthTag = "max-buffer-length";
const std::string typeTag = "type";
namespace Type {
const std::string reliableTag = "reliable";
const std::string discardingTag = "discarding";
const std::string posixPipeTag = "posix-pipe";
const std::string winPipeTag = "win-pipe";
}  // namespace Type
}  // namespace Slot
namespace FileOutput {
const std::string filenameTag = "filename";
const std::string tstampedFilenameTag = "timestamped-filename";
const std::string appendTag = "append";
const std::string formatTag = "format";
const std::string rotatableTag = "rotate";
const std::string maxFilesIndexTag = "max-files-index";
namespace SizeAbbreviations {
const std::string kiloBytesTag = "K";
const std::string megaBytesTag = "M";
const std::string gigaBytesTag = "G";
}  // namespace SizeAbbreviations
}  // namespace FileOutput
}  // namespace Object
}  // namespace Configuration
