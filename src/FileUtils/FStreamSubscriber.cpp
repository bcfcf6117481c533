// SPDX-License-Identifier: Apache-2.0
#include <FileUtils/FStreamSubscriber.h>

#include <cstring>

namespace FileUtils {

FStreamSubscriber::FStreamSubscriber(const IFileOutputCfg& cfg, const FormatFunction& format)
    : FSBase(cfg), format_(format) {}

void FStreamSubscriber::onNotify(const std::string&, const void* data, size_t size) {
    if (!format_) {
        if (size == 0) {
            return;
        }
        WriteBlock(static_cast<const char*>(data), size);
        return;
    }
    // The format function may change the array, so it gets a copy of the notified bytes.
    shared::SizedArray block(static_cast<unsigned int>(size));
    if (size != 0) {
        std::memcpy(block.data(), data, size);
    }
    const std::string text = format_(block);
    if (!text.empty()) {
        WriteBlock(text.data(), text.size());
    }
}

}  // namespace FileUtils
