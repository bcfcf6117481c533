// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <FileUtils/Export.h>
#include <FileUtils/FSBase.h>

#include <shared/ISubscriber.h>
#include <shared/SizedArray.h>

#include <boost/function.hpp>

#include <string>

namespace FileUtils {

// A subscriber that writes every notification, passed through the format function, as one
// block to the file of its configuration (see FSBase for what that means for regular files
// and named pipes). An empty format function writes the bytes as they come; a notification
// that formats to nothing writes nothing. The stream must have been opened with Reopen():
// blocks that arrive while it is closed are dropped with a WARN.
//
// Concurrency: onNotify may be called from several threads at once; the format function runs
// outside the lock, the write under it.
class FILEUTILS_EXPORT FStreamSubscriber : public FSBase, public shared::ISubscriber {
public:
    typedef boost::function<std::string(shared::SizedArray&)> FormatFunction;

    FStreamSubscriber(const IFileOutputCfg& cfg, const FormatFunction& format);

    void onNotify(const std::string& name, const void* data, size_t size) override;

private:
    FormatFunction format_;
};

}  // namespace FileUtils
