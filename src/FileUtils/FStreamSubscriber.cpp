// SPDX-License-Identifier: Apache-2.0
#include <FileUtils/FStreamSubscriber.h>

#include <cstring>
#include <limits>

namespace FileUtils {

FStreamSubscriber::FStreamSubscriber(const IFileOutputCfg& cfg, const FormatFunction& format)
    : FSBase(cfg), format_(format) {}

void FStreamSubscriber::onNotify(const std::string&, const void* data, size_t size) {
    if (!format_) {
        if (size == 0) {
            RecordEmptyBlock();
            return;
        }
        WriteBlock(static_cast<const char*>(data), size);
        return;
    }
    // A format function takes a shared::SizedArray, whose size has 32 bits.
    if (size > std::numeric_limits<unsigned int>::max()) {
        if (logger_->isErrorEnabled()) {
            LOG4CXX_ERROR(logger_, "Block of " << size
                                               << " bytes is too large to be formatted for '"
                                               << GetFileName() << "', dropped");
        }
        return;
    }
    // The format function may change the array, so it gets a copy of the notified bytes.
    shared::SizedArray block(static_cast<unsigned int>(size));
    if (size != 0) {
        std::memcpy(block.data(), data, size);
    }
    const std::string text = format_(block);
    if (text.empty()) {
        RecordEmptyBlock();
    } else {
        WriteBlock(text.data(), text.size());
    }
}

}  // namespace FileUtils
