// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <FileUtils/Export.h>
#include <FileUtils/FStreamSubscriber.h>

namespace FileUtils {

// A file-stream subscriber that opens its stream by itself when a block comes and the stream
// is not open (never opened, or closed after a failed write), and that reopens a regular file
// that was removed or renamed away (e.g. by logrotate), so that writing goes on into a file at
// the configured name. A failed opening is logged at ERROR and the block is dropped.
class FILEUTILS_EXPORT FSSAutoReopen : public FStreamSubscriber {
public:
    FSSAutoReopen(const IFileOutputCfg& cfg, const FormatFunction& format);

protected:
    bool PrepareStreamLocked() override;
};

}  // namespace FileUtils
