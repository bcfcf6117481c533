// SPDX-License-Identifier: Apache-2.0
// Random bytes written over a slot's header segment or queue: opening, writing and reading the
// slot give exceptions or ERROR lines, never a crash, an out-of-bounds access (run it under
// ASan/UBSan) or a hang. Each case runs in a child under a watchdog.
#include "ChildProcess.h"
#include "ShmHygiene.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
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
#include <random>
#include <string>

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

}  // namespace
