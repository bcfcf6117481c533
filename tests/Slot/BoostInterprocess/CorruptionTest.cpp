// SPDX-License-Identifier: Apache-2.0
// Random bytes written over a slot's header segment or queue: opening, writing and reading the
// slot give exceptions or ERROR lines, never a crash, an out-of-bounds access (run it under
// ASan/UBSan) or a hang. Each case runs in a child under a watchdog.
#include "ChildProcess.h"
#include "ShmHygiene.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/BoostInterprocess/SlotImage.h>
#include <Slot/SlotFactory.h>

#include <shared/ILockable.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using boost::interprocess::open_or_create;

// Overwrites `count` random runs of 1-8 random bytes of the object `name`.
void Scribble(const std::string& name, std::mt19937& random, int count) {
    const int fd = ::shm_open(name.c_str(), O_RDWR, 0);
    ASSERT_GE(fd, 0) << name;
    struct stat st;
    ASSERT_EQ(0, ::fstat(fd, &st));
    const size_t size = static_cast<size_t>(st.st_size);
    void* address = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    ASSERT_NE(MAP_FAILED, address);
    unsigned char* bytes = static_cast<unsigned char*>(address);
    for (int i = 0; i < count; ++i) {
        const size_t at = random() % size;
        const size_t run = 1 + random() % 8;
        for (size_t k = at; k < at + run && k < size; ++k) {
            bytes[k] = static_cast<unsigned char>(random());
        }
    }
    ::munmap(address, size);
}

// Opens, writes and reads the slot; every failure must be an exception of the library's kinds.
int UseSlot(const std::string& name) {
    ::setenv("SLOT_CREATION_WAIT_MS", "100", 1);
    try {
        ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
        char buffer[64];
        for (int i = 0; i < 3; ++i) {
            shared::ILockable& lock = *slot.GetLockable();
            lock.lock();
            slot.WriteData("fresh", 5);
            lock.unlock();
            lock.lock();
            try {
                slot.ReadData(buffer, sizeof(buffer));
            } catch (const boost::interprocess::interprocess_exception&) {
            }
            lock.unlock();
            slot.GetBufferLength();
            slot.GetLastWriteTime();
        }
    } catch (const AbortSlotCreationException&) {
    } catch (const boost::interprocess::interprocess_exception&) {
    }
    return 0;
}

TEST(Corruption, RandomBytesOverAHeaderOrAQueueNeverCrashOrHang) {
    int cases = 200;
    if (const char* text = std::getenv("SLOT_CORRUPTION_CASES")) {
        cases = std::max(1, std::atoi(text));
    }
    unsigned seed = 20261123;
    if (const char* text = std::getenv("SLOT_CORRUPTION_SEED")) {
        seed = static_cast<unsigned>(std::strtoul(text, nullptr, 10));
    }
    // Each case draws from its own generator, so that one case can be run alone.
    int first = 0;
    if (const char* text = std::getenv("SLOT_CORRUPTION_FIRST")) {
        first = std::max(0, std::atoi(text));
    }
    for (int c = first; c < first + cases; ++c) {
        std::seed_seq caseSeed{seed, static_cast<unsigned>(c)};
        std::mt19937 random(caseSeed);
        testsupport::ScopedSlotName name("corrupt");
        {
            ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
            slot.GetLockable()->lock();
            slot.WriteData("block one", 9);
            slot.WriteData("block two", 9);
            slot.GetLockable()->unlock();
        }
        const bool queue = c % 2 == 1;
        Scribble(queue ? "queue_" + name.str() : name.str(), random, 1 + c % 4);
        const testsupport::ChildResult result =
            testsupport::RunInChild([&] { return UseSlot(name); }, std::chrono::seconds(30));
        ASSERT_TRUE(result.Ok()) << "seed " << seed << ", case " << c << " ("
                                 << (queue ? "queue" : "header") << "): " << result.Describe();
        SlotFactory::RemoveSlot(name.str());
    }
}

// The bytes of the shared-memory object `name`, and writing them back.
std::vector<unsigned char> ReadBytes(const std::string& name) {
    const int fd = ::shm_open(name.c_str(), O_RDONLY, 0);
    EXPECT_GE(fd, 0) << name;
    struct stat st;
    ::fstat(fd, &st);
    std::vector<unsigned char> bytes(static_cast<size_t>(st.st_size));
    EXPECT_EQ(st.st_size, ::pread(fd, bytes.data(), bytes.size(), 0));
    ::close(fd);
    return bytes;
}

void WriteBytes(const std::string& name, const std::vector<unsigned char>& bytes) {
    const int fd = ::shm_open(name.c_str(), O_RDWR, 0);
    ASSERT_GE(fd, 0) << name;
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::pwrite(fd, bytes.data(), bytes.size(), 0));
    ::close(fd);
}

// Every 32-bit word of the segment's bookkeeping (all but the output buffer's data) replaced by
// values that look like sizes, offsets and flags, while the last named object's name is changed,
// so that opening must construct it again and so allocate through whatever the damage left:
// no crash, no hang. The words of the segment's own mutexes are left alone (a lock word that a
// live process seems to hold is waited for, as any lock is).
TEST(Corruption, EveryBookkeepingWordDamagedBeforeAnAllocation) {
    testsupport::ScopedSlotName name("corrupt");
    {
        ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
        slot.GetLockable()->lock();
        slot.WriteData("block", 5);
        slot.GetLockable()->unlock();
    }
    std::vector<unsigned char> pristine = ReadBytes(name.str());
    const char condition[] = "cond_on_write";
    auto found =
        std::search(pristine.begin(), pristine.end(), condition, condition + sizeof(condition) - 1);
    ASSERT_NE(pristine.end(), found);
    found[sizeof(condition) - 2] = 'f';  // same length: the index stays in order
    const SlotImage::HeaderImage image = SlotImage::ParseHeader(pristine.data(), pristine.size());
    ASSERT_EQ(SlotImage::Verdict::Unfinished, image.verdict) << image.problem;
    ASSERT_TRUE(image.outputBuffer.present);
    auto insideMutex = [&](std::uint64_t at) {
        for (const SlotImage::Region& mutex :
             {image.allocatorMutex, image.indexMutex, image.headerMutex}) {
            if (mutex.present && at + 4 > mutex.offset && at < mutex.offset + mutex.size) {
                return true;
            }
        }
        return false;
    };
    const std::uint32_t values[] = {0, 1, 16, 0x80000002u, 0xfffffff0u};
    int cases = 0;
    for (std::uint64_t at = image.managerOffset; at + 4 <= pristine.size(); at += 4) {
        const bool data = at + 4 > image.outputBuffer.offset &&
                          at < image.outputBuffer.offset + image.outputBuffer.size;
        if (data || insideMutex(at)) {
            continue;
        }
        for (std::uint32_t value : values) {
            std::vector<unsigned char> bytes = pristine;
            std::memcpy(&bytes[at], &value, sizeof(value));
            WriteBytes(name.str(), bytes);
            const testsupport::ChildResult result =
                testsupport::RunInChild([&] { return UseSlot(name); }, std::chrono::seconds(30));
            ASSERT_TRUE(result.Ok())
                << "word at " << at << " = " << value << ": " << result.Describe();
            ++cases;
        }
    }
    EXPECT_GT(cases, 100);
}

}  // namespace
