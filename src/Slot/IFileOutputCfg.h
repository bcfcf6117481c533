// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>

// Description of a file output, consumed by FileUtils::FSSAutoReopen.
class IFileOutputCfg {
public:
    virtual ~IFileOutputCfg() {}
    virtual std::string GetTargetFilenameBase() const = 0;
    virtual std::string GetFormat() const = 0;
    virtual bool GetTimestampedFilenameFlag() const = 0;
    virtual bool GetAppendFlag() const = 0;
    virtual bool GetRotateFlag() const = 0;
    virtual size_t GetMaxSize() const = 0;
    virtual unsigned int GetMaxFileIndex() const = 0;
};

// File output that always appends, has no named format, is at most 10 MiB and never rotates
// past index 0.
class SimpleFileOutputCfg : public IFileOutputCfg {
public:
    SimpleFileOutputCfg(const std::string& targetFilename, bool timestampedFilename, bool rotate)
        : targetFilename_(targetFilename),
          timestampedFilename_(timestampedFilename),
          rotate_(rotate) {}

    std::string GetTargetFilenameBase() const override { return targetFilename_; }
    std::string GetFormat() const override { return ""; }
    bool GetTimestampedFilenameFlag() const override { return timestampedFilename_; }
    bool GetAppendFlag() const override { return true; }
    bool GetRotateFlag() const override { return rotate_; }
    size_t GetMaxSize() const override { return 10485760; }
    unsigned int GetMaxFileIndex() const override { return 0; }

private:
    std::string targetFilename_;
    bool timestampedFilename_;
    bool rotate_;
};
