// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Files.h"

#include <Slot/IFileOutputCfg.h>

#include <gtest/gtest.h>

#include <unistd.h>
#include <set>
#include <string>

namespace filetest {

// A file output with every field chosen by the test; by default it appends, without rotation or
// maximum size.
struct TestOutputCfg : public IFileOutputCfg {
    TestOutputCfg(const std::string& file, bool append = true, bool rotate = false,
                  size_t maxSize = 0, unsigned int maxFileIndex = 0, bool timestamped = false)
        : file(file),
          timestamped(timestamped),
          append(append),
          rotate(rotate),
          maxSize(maxSize),
          maxFileIndex(maxFileIndex) {}

    std::string GetTargetFilenameBase() const override { return file; }
    std::string GetFormat() const override { return ""; }
    bool GetTimestampedFilenameFlag() const override { return timestamped; }
    bool GetAppendFlag() const override { return append; }
    bool GetRotateFlag() const override { return rotate; }
    size_t GetMaxSize() const override { return maxSize; }
    unsigned int GetMaxFileIndex() const override { return maxFileIndex; }

    std::string file;
    bool timestamped;
    bool append;
    bool rotate;
    size_t maxSize;
    unsigned int maxFileIndex;
};

// Reproducible bytes that reveal loss, duplication and reordering: every position differs
// from its neighbours over long stretches.
inline std::string Pattern(size_t size, unsigned int seed) {
    std::string bytes(size, '\0');
    unsigned int x = seed * 2654435761u + 1;
    for (size_t i = 0; i < size; ++i) {
        x = x * 1103515245u + 12345u;
        bytes[i] = static_cast<char>(x >> 16);
    }
    return bytes;
}

// Whether `actual` holds exactly the bytes `expected`; else where they part, not the bytes.
inline ::testing::AssertionResult SameBytes(const std::string& expected,
                                            const std::string& actual) {
    if (expected == actual) {
        return ::testing::AssertionSuccess();
    }
    size_t at = 0;
    while (at < expected.size() && at < actual.size() && expected[at] == actual[at]) {
        ++at;
    }
    return ::testing::AssertionFailure() << "expected " << expected.size() << " bytes, got "
                                         << actual.size() << ", the first " << at << " alike";
}

using testsupport::ReadFile;
using testsupport::WriteFile;

// Removes the listed paths (files, FIFOs) when the test ends, also when it fails.
class ScopedPaths {
public:
    ScopedPaths() {}
    explicit ScopedPaths(const std::string& path) { Add(path); }
    ~ScopedPaths() {
        for (const std::string& path : paths_) {
            ::unlink(path.c_str());
        }
    }
    ScopedPaths(const ScopedPaths&) = delete;
    ScopedPaths& operator=(const ScopedPaths&) = delete;
    const std::string& Add(const std::string& path) {
        paths_.insert(path);
        return path;
    }

private:
    std::set<std::string> paths_;
};

}  // namespace filetest
