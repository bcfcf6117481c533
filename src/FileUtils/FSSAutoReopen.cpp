// SPDX-License-Identifier: Apache-2.0
#include <FileUtils/FSSAutoReopen.h>

#include <stdexcept>

namespace FileUtils {

FSSAutoReopen::FSSAutoReopen(const IFileOutputCfg& cfg, const FormatFunction& format)
    : FStreamSubscriber(cfg, format) {}

bool FSSAutoReopen::PrepareStreamLocked() {
    if (IsOpenLocked() && FileIsStillInPlaceLocked()) {
        return true;
    }
    try {
        ReopenLocked();
        return true;
    } catch (const std::exception& e) {
        if (logger_->isErrorEnabled()) {
            LOG4CXX_ERROR(logger_, "Cannot reopen : " << e.what());
        }
        return false;
    }
}

}  // namespace FileUtils
