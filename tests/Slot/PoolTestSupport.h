// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ShmHygiene.h"

#include <Slot/PoolFactory.h>
#include <Slot/PoolSegment.h>
#include <Slot/SlotNames.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace pooltest {

// A unique pool name whose pool is removed when it goes out of scope, also when a test fails.
class ScopedPool {
public:
    explicit ScopedPool(const std::string& stem = "pool") : name_(testsupport::UniqueName(stem)) {}
    ~ScopedPool() { Slot::PoolFactory::RemovePool(name_); }
    ScopedPool(const ScopedPool&) = delete;
    ScopedPool& operator=(const ScopedPool&) = delete;

    const std::string& str() const { return name_; }
    Slot::PoolConfig Config(const std::string& kind, std::size_t size, std::size_t count) const {
        return Slot::PoolConfig{name_, kind, size, count};
    }

private:
    std::string name_;
};

// In a child process: gives it a /dev/shm of its own (a private mount namespace with a fresh
// tmpfs). 0, or the errno that kept this from being set up here (no namespaces, not root): the
// caller then skips.
inline int PrivateShm() {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", Slot::ShmDirectory().c_str(), "tmpfs", 0, "mode=1777") != 0) {
        return errno;
    }
    return 0;
}

// Hands the pools' folder (of a private /dev/shm) to another user, as a folder made first by
// another user is; 0 or the errno.
inline int GivePoolFolderAway() {
    const uid_t other = ::geteuid() == 0 ? 65534 : 0;
    return ::chown(Slot::PoolDirectory().c_str(), other, other) != 0 ? errno : 0;
}

// Files in the pools' folder whose names start with `prefix`.
inline std::vector<std::string> PoolFiles(const std::string& prefix) {
    std::vector<std::string> files;
    if (DIR* dir = ::opendir(Slot::PoolDirectory().c_str())) {
        while (dirent* entry = ::readdir(dir)) {
            if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0) {
                files.push_back(entry->d_name);
            }
        }
        ::closedir(dir);
    }
    return files;
}

// Files of this test run in the pools' folder (pools made by the tests carry the run's prefix).
inline std::vector<std::string> LeftoverPools() {
    return PoolFiles(testsupport::TestNamePrefix());
}

// Every pool test leaves the pools' folder as it found it.
class PoolTest : public ::testing::Test {
protected:
    void TearDown() override {
        const std::vector<std::string> left = LeftoverPools();
        for (const std::string& name : left) {
            Slot::PoolFactory::RemovePool(name);
        }
        EXPECT_TRUE(left.empty()) << "left in " << Slot::PoolDirectory() << ": " << left.front();
    }
};

// Writes `value` at `offset` of the pool's file, as a stray process could.
template <class T>
void Poke(const std::string& name, std::uint64_t offset, const T& value) {
    const int fd = ::open(Slot::PoolPath(name).c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(sizeof(T)),
              ::pwrite(fd, &value, sizeof(T), static_cast<off_t>(offset)));
    ::close(fd);
}

// Records the pool's attachment entry `index` as one made in another pid namespace, so that it
// is judged by its owner's lock alone.
inline void MoveToOtherPidNamespace(const std::string& name, unsigned index) {
    Poke(name,
         sizeof(Slot::PoolHeader) + index * sizeof(Slot::PoolAttachmentSlot) +
             offsetof(Slot::PoolAttachmentSlot, pidNamespace),
         std::uint64_t{1});
}

// A child's end: sleeps until it is killed.
[[noreturn]] inline void SleepUntilKilled() {
    for (;;) {
        ::pause();
    }
}

// Deterministic block contents: 8 bytes of `tag`, then bytes derived from it; Check verifies a
// block made by Fill and returns its tag (or ~0 when the bytes are torn).
inline void Fill(void* data, std::size_t size, std::uint64_t tag) {
    unsigned char* bytes = static_cast<unsigned char*>(data);
    std::uint64_t x = tag * 0x9e3779b97f4a7c15ull + 1;
    for (std::size_t i = 0; i < size; ++i) {
        if (i < 8) {
            bytes[i] = static_cast<unsigned char>(tag >> (8 * i));
        } else {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            bytes[i] = static_cast<unsigned char>(x);
        }
    }
}

inline std::uint64_t Check(const void* data, std::size_t size) {
    if (size < 8) {
        return ~0ull;
    }
    std::uint64_t tag = 0;
    std::memcpy(&tag, data, 8);
    std::vector<unsigned char> expected(size);
    Fill(expected.data(), size, tag);
    return std::memcmp(expected.data(), data, size) == 0 ? tag : ~0ull;
}

}  // namespace pooltest
