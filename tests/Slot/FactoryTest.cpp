// SPDX-License-Identifier: Apache-2.0
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/DiscardingSlot.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/SlotFactory.h>

#include <FileUtils/FSUtils.h>
#include <FileUtils/NamedPipeCreator.h>
#include <shared/FileHelpers.h>
#include <shared/SharedMemory.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <fstream>

namespace {

using testsupport::LogCapture;
using testsupport::ScopedSlotName;

bool ShmExists(const std::string& name) {
    struct stat st;
    return ::stat(("/dev/shm/" + name).c_str(), &st) == 0;
}

SimpleSlotCfg Cfg(const std::string& name, const std::string& type, unsigned int length = 4,
                  int updateMs = 10) {
    return SimpleSlotCfg(name, type, boost::posix_time::milliseconds(updateMs), length);
}

// Whether this process has a descriptor open on `path`.
bool ProcessHasOpen(const std::string& path) {
    for (int fd = 0; fd < 1024; ++fd) {
        char link[4096];
        const std::string proc = "/proc/self/fd/" + std::to_string(fd);
        const ssize_t n = ::readlink(proc.c_str(), link, sizeof(link) - 1);
        if (n > 0 && std::string(link, static_cast<size_t>(n)) == path) {
            return true;
        }
    }
    return false;
}

// INFO messages of the factory's own logger (its children, the readers, log "Initialized").
std::vector<std::string> FactoryMessages(const LogCapture& log) {
    std::vector<std::string> out;
    for (const LogCapture::Event& e : log.Events()) {
        if (e.logger == "Slot" && e.level == "INFO") {
            out.push_back(e.message);
        }
    }
    return out;
}

TEST(SlotFactory, AcceptsTheThreeTypesAndTheEmptyOne) {
    EXPECT_TRUE(SlotFactory::SlotTypeIsValid("reliable"));
    EXPECT_TRUE(SlotFactory::SlotTypeIsValid("discarding"));
    EXPECT_TRUE(SlotFactory::SlotTypeIsValid("posix-pipe"));
    EXPECT_TRUE(SlotFactory::SlotTypeIsValid(""));
    EXPECT_FALSE(SlotFactory::SlotTypeIsValid("win-pipe"));
    EXPECT_FALSE(SlotFactory::SlotTypeIsValid("Reliable"));
    EXPECT_FALSE(SlotFactory::SlotTypeIsValid("reliable "));
}

TEST(SlotFactory, InvalidTypeIsRefusedByEveryOperationAndCreatesNothing) {
    ScopedSlotName name("wintype");
    const SimpleSlotCfg cfg = Cfg(name, "win-pipe");
    const auto expectRefused = [&](const std::function<void()>& op) {
        try {
            op();
            ADD_FAILURE() << "no exception";
        } catch (const AbortSlotCreationException& e) {
            EXPECT_STREQ("Invalid slot type win-pipe", e.what());
        }
    };
    expectRefused([&] { SlotFactory::CreateSlot(&cfg); });
    expectRefused([&] { SlotFactory::CreateSlotReader(&cfg); });
    expectRefused([&] { SlotFactory::CreateSlotWriter(&cfg); });
    EXPECT_FALSE(ShmExists(name.str()));
    EXPECT_FALSE(ShmExists("queue_" + name.str()));
    struct stat st;
    EXPECT_NE(0, ::stat(FileUtils::NamedPipeCreator::ConstructPipeFilename(name).c_str(), &st));
}

TEST(SlotFactory, CreateSlotPicksTheKindByType) {
    ScopedSlotName a("kind"), b("kind"), c("kind"), d("kind");
    const SimpleSlotCfg empty = Cfg(a, ""), pipe = Cfg(b, "posix-pipe"),
                        discarding = Cfg(c, "discarding", 7), reliable = Cfg(d, "reliable", 3);
    EXPECT_TRUE(dynamic_cast<DiscardingSlot*>(SlotFactory::CreateSlot(&empty).get()));
    EXPECT_TRUE(dynamic_cast<DiscardingSlot*>(SlotFactory::CreateSlot(&pipe).get()));
    boost::shared_ptr<ISlot> one = SlotFactory::CreateSlot(&discarding);
    EXPECT_TRUE(dynamic_cast<DiscardingSlot*>(one.get()));
    boost::shared_ptr<ISlot> three = SlotFactory::CreateSlot(&reliable);
    ASSERT_TRUE(dynamic_cast<ReliableSlot*>(three.get()));
    for (int i = 0; i < 5; ++i) {
        one->WriteData("x", 1);
        three->WriteData("x", 1);
    }
    EXPECT_EQ(1u, one->GetBufferLength()) << "a discarding slot ignores the buffer length";
    EXPECT_EQ(3u, three->GetBufferLength()) << "a reliable slot holds the configured length";
    EXPECT_EQ(65536u, three->GetMaxDataSize());
}

TEST(SlotFactory, RemoveSlotIsTrueOnlyWhenQueueAndHeaderWereRemoved) {
    ScopedSlotName name("remove"), neighbour("remove");
    LogCapture log("Slot", log4cxx::Level::getDebug());
    const SimpleSlotCfg cfg = Cfg(name, "reliable"), other = Cfg(neighbour, "reliable");
    SlotFactory::CreateSlot(&cfg);
    SlotFactory::CreateSlot(&other);
    const std::string lockFile =
        shared::TouchFile(FileUtils::FSUtils::GetSingletonFileLockName(name));

    EXPECT_TRUE(SlotFactory::RemoveSlot(name));
    EXPECT_EQ(1u, log.Count("DEBUG", name.str() + " remove results : queue 1 header shm 0"));
    EXPECT_FALSE(ShmExists(name.str()));
    EXPECT_FALSE(ShmExists("queue_" + name.str()));
    // Nothing else is touched: the neighbour and the lock file stay.
    EXPECT_TRUE(ShmExists(neighbour.str()));
    EXPECT_TRUE(ShmExists("queue_" + neighbour.str()));
    EXPECT_EQ(0, ::access(lockFile.c_str(), F_OK));

    EXPECT_FALSE(SlotFactory::RemoveSlot(name)) << "missing name";
    EXPECT_EQ(1u, log.Count("DEBUG", name.str() + " remove results : queue 0 header shm 1"));

    // Header without queue, and queue without header: both false.
    delete shared::CreateSharedMemory(boost::interprocess::open_or_create, name.c_str(), 4096);
    EXPECT_FALSE(SlotFactory::RemoveSlot(name));
    SlotFactory::CreateSlot(&cfg);
    shared::RemoveSharedMemory(name.c_str());
    EXPECT_FALSE(SlotFactory::RemoveSlot(name));
    EXPECT_EQ(1u, log.Count("DEBUG", name.str() + " remove results : queue 1 header shm 1"));
    ::unlink(lockFile.c_str());
}

TEST(SlotFactory, LogsWhatItCreates) {
    ScopedSlotName d("info"), r("info"), e("info");
    LogCapture log("Slot", log4cxx::Level::getInfo());
    const SimpleSlotCfg discarding = Cfg(d, "discarding", 4, 0),
                        reliable = Cfg(r, "reliable", 4, 0), empty = Cfg(e, "", 4, 0);
    SlotFactory::CreateSlotWriter(&discarding);
    SlotFactory::CreateSlotWriter(&reliable);
    SlotFactory::CreateSlotReader(&empty);
    SlotFactory::CreateSlotReader(&reliable);
    EXPECT_EQ((std::vector<std::string>{"Creating SlotWriter and DiscardingSlot for " + d.str(),
                                        "Creating SlotWriter and ReliableSlot for " + r.str(),
                                        "Creating DiscardingSlotReader for " + e.str(),
                                        "Creating ReliableSlotReader for " + r.str()}),
              FactoryMessages(log));
}

TEST(SlotFactory, PosixPipeGoesThroughTheFileSystemOnly) {
    ScopedSlotName name("pipe");
    LogCapture log("Slot", log4cxx::Level::getInfo());
    const SimpleSlotCfg cfg = Cfg(name, "posix-pipe");
    const std::string path = FileUtils::NamedPipeCreator::ConstructPipeFilename(name);
    {
        ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
        EXPECT_TRUE(ProcessHasOpen(path)) << "the writer's stream is open when it is returned";
        INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg);
        ASSERT_TRUE(reader);
    }
    EXPECT_EQ((std::vector<std::string>{"Creating FStreamSubscriber for posix-pipe " + name.str(),
                                        "Creating FileReader for posix-pipe " + name.str()}),
              FactoryMessages(log));
    EXPECT_FALSE(ShmExists(name.str()));
    EXPECT_FALSE(ShmExists("queue_" + name.str()));
    ::unlink(path.c_str());

    // A directory in the way: the error names the path, not the bare slot name.
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0700));
    for (int op = 0; op < 2; ++op) {
        try {
            if (op == 0) {
                SlotFactory::CreateSlotReader(&cfg);
            } else {
                SlotFactory::CreateSlotWriter(&cfg);
            }
            ADD_FAILURE() << "no exception";
        } catch (const AbortSlotCreationException& e) {
            EXPECT_EQ("Failed to create named pipe " + path, std::string(e.what()));
        }
    }
    ::rmdir(path.c_str());
}

}  // namespace
