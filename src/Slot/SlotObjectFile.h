// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/BoostInterprocess/SlotImage.h>

#include <sys/stat.h>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Slot {

// One shared-memory object of a slot opened for plain reads, the way the survey and activity
// samples look at slots: never mapped (a mapping of an object truncated meanwhile raises SIGBUS),
// read-only, non-blocking and without following links (whatever was planted under the name since
// it was looked up can neither block the open nor redirect it).
//
// As a SlotImage::ByteSource it reads on demand with pread: small reads a page at a time through
// a small cache, large ones directly into the caller's buffer, so memory stays bounded whatever
// the object's size. Size() is the size fstat gave at the opening; bytes past the end of an object
// that shrank since cannot be read. One thread at a time (the cache is not locked).
class SlotObjectFile : public SlotImage::ByteSource {
public:
    SlotObjectFile() = default;
    ~SlotObjectFile() override;
    SlotObjectFile(const SlotObjectFile&) = delete;
    SlotObjectFile& operator=(const SlotObjectFile&) = delete;

    // Opens `path`: 0, or the open's errno. Status() is then what fstat says of it; only
    // a regular file is read (Size() is 0 for anything else).
    int Open(const std::string& path);
    const struct stat& Status() const { return status_; }
    bool IsRegularFile() const { return S_ISREG(status_.st_mode); }

    std::uint64_t Size() const override { return size_; }
    bool ReadAt(std::uint64_t offset, void* out, std::size_t length) const override;

private:
    static constexpr std::size_t PageBytes = 4096;
    static constexpr std::size_t CachedPages = 16;  // direct-mapped by page number
    struct Page {
        std::uint64_t number = 0;
        std::size_t valid = 0;  // bytes read; 0: empty
        unsigned char bytes[PageBytes];
    };

    // Reads `length` bytes at `offset` into `out`; the bytes read.
    std::size_t ReadFile(std::uint64_t offset, void* out, std::size_t length) const;

    int fd_ = -1;
    struct stat status_ = {};
    std::uint64_t size_ = 0;
    mutable std::vector<Page> pages_;
};

}  // namespace Slot
