// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"
#include "LogCapture.h"
#include "Readers.h"
#include "ShmHygiene.h"

#include <Slot/BoostInterprocess/DiscardingSlot.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/SlotNames.h>

#include <FileUtils/FSUtils.h>
#include <FileUtils/NamedPipeCreator.h>
#include <shared/FileHelpers.h>
#include <shared/SharedMemory.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <cstdint>
#include <fstream>
#include <functional>
#include <vector>

namespace {

using testsupport::LogCapture;
using testsupport::RefusalOf;
using testsupport::ScopedSlotName;
using testsupport::ShmExists;

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

// The factory's operations `ops` (0 CreateSlot, 1 CreateSlotReader, 2 CreateSlotWriter) refuse
// `cfg` with `message`, or a message that starts with it when not `whole`.
void ExpectRefused(const ISlotConfiguration& cfg, const std::string& message, bool whole = true,
                   const std::vector<int>& ops = {0, 1, 2}) {
    const std::function<void()> make[] = {[&] { SlotFactory::CreateSlot(&cfg); },
                                          [&] { SlotFactory::CreateSlotReader(&cfg); },
                                          [&] { SlotFactory::CreateSlotWriter(&cfg); }};
    for (const int op : ops) {
        const std::string what = RefusalOf(make[op]);
        EXPECT_EQ(message, whole ? what : what.substr(0, message.size())) << "operation " << op;
    }
}

// Nothing of slot `name` was made: no header, no queue, no FIFO.
void ExpectNothingMade(const std::string& name) {
    EXPECT_FALSE(ShmExists(name));
    EXPECT_FALSE(ShmExists("queue_" + name));
    EXPECT_NE(0, ::access(FileUtils::NamedPipeCreator::ConstructPipeFilename(name).c_str(), F_OK));
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

// A NUL byte would cut the name short: "<n>\0x" would open slot "<n>" (and its FIFO).
TEST(SlotFactory, InvalidTypesAndNamesWithANulByteAreRefusedAndCreateNothing) {
    ScopedSlotName name("refused");
    for (const std::string type : {"win-pipe", "Reliable", "reliable "}) {
        EXPECT_FALSE(SlotFactory::SlotTypeIsValid(type)) << type;
        ExpectRefused(Cfg(name, type), "Invalid slot type " + type);
    }
    for (const char* type : {"reliable", "discarding", "posix-pipe", ""}) {
        SCOPED_TRACE(type);
        EXPECT_TRUE(SlotFactory::SlotTypeIsValid(type));
        ExpectRefused(
            Cfg(name.str() + std::string(1, '\0') + "x", type),
            "Slot could not be created: the name '" + name.str() + "...' contains a NUL byte");
    }
    ExpectNothingMade(name);
}

// (How many blocks each kind holds is WriteOutcome's test.)
TEST(SlotFactory, CreateSlotPicksTheKindByType) {
    ScopedSlotName a("kind"), b("kind"), c("kind"), d("kind");
    const SimpleSlotCfg empty = Cfg(a, ""), pipe = Cfg(b, "posix-pipe"),
                        discarding = Cfg(c, "discarding"), reliable = Cfg(d, "reliable");
    EXPECT_TRUE(dynamic_cast<DiscardingSlot*>(SlotFactory::CreateSlot(&empty).get()));
    EXPECT_TRUE(dynamic_cast<DiscardingSlot*>(SlotFactory::CreateSlot(&pipe).get()));
    EXPECT_TRUE(dynamic_cast<DiscardingSlot*>(SlotFactory::CreateSlot(&discarding).get()));
    boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&reliable);
    EXPECT_TRUE(dynamic_cast<ReliableSlot*>(slot.get()));
    EXPECT_EQ(65536u, slot->GetMaxDataSize());
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

// A configuration whose values do not fit what the plain record can hold.
SlotCfg WideCfg(const std::string& name, const std::string& type, std::uint64_t maxSize,
                std::uint64_t length,
                boost::posix_time::time_duration updateTime = boost::posix_time::milliseconds(10)) {
    return SlotCfg(name, type, updateTime, static_cast<size_t>(length),
                   static_cast<size_t>(maxSize));
}

// 2^32 + 16 would be a 16-byte slot and 2^32 + 2 a 2-block queue if they were narrowed.
TEST(SlotFactory, SizesAbove32BitsAreRefusedNotTruncated) {
    if (sizeof(size_t) < 8) {
        GTEST_SKIP() << "size_t holds 32 bits only";
    }
    const std::uint64_t big = std::uint64_t(1) << 32;
    ScopedSlotName name("wide");
    const std::string failure = "Slot could not be created: ";
    for (const std::string type : {"reliable", "discarding", ""}) {
        SCOPED_TRACE(type);
        ExpectRefused(WideCfg(name, type, big + 16, 4), failure, false);
        if (type == "reliable") {  // only a reliable slot asks for the buffer length
            ExpectRefused(WideCfg(name, type, 64, big + 2), failure, false);
        }
    }
    ExpectRefused(WideCfg(name, "posix-pipe", big + 16, 4), failure, false, {1});
    ExpectNothingMade(name);
}

// Non-finite and negative update times would make Init sleep for ever or the thread spin, such
// spin budgets a spin that never ends; the readers themselves refuse them.
TEST(SlotFactory, UpdateTimesAndSpinBudgetsThatCannotWorkAreRefused) {
    ScopedSlotName name("uptime"), zero("uptimezero");
    // In a child with a time limit: a reader that accepted one of them would never return.
    const testsupport::ChildResult child = testsupport::RunInChild(
        [&] {
            using namespace boost::posix_time;
            int failures = 0;
            for (const std::string type : {"reliable", "discarding", "posix-pipe"}) {
                for (const time_duration& t :
                     {time_duration(pos_infin), time_duration(neg_infin),
                      time_duration(not_a_date_time), time_duration(microseconds(-1))}) {
                    const SlotCfg bad = WideCfg(name, type, 64, 4, t),
                                  good = WideCfg(name, type, 64, 4);
                    const std::string of = to_simple_string(t) + " of '" + name.str() + "': a ";
                    failures += RefusalOf([&] { SlotFactory::CreateSlotReader(&bad); }) !=
                                "Invalid update time " + of +
                                    "reader needs a finite update time of 0 or more";
                    failures += RefusalOf([&] {
                                    SlotFactory::CreateSpinningSlotReader(&good, t);
                                }) != "Invalid spin budget " + of +
                                          "spinning reader needs a finite budget of 0 or more";
                }
            }
            // 0 is a reader that looks again at once.
            const SlotCfg immediate = WideCfg(zero, "discarding", 64, 4, time_duration());
            return failures + (SlotFactory::CreateSlotReader(&immediate) ? 0 : 1);
        },
        std::chrono::seconds(20));
    EXPECT_TRUE(child.Ok()) << child.Describe();
    ExpectNothingMade(name);
}

// Objects another user could truncate under this process (SIGBUS) or share blocks through are
// refused before they are mapped: another user's, and others' writable ones that are not this
// user's own. This user's own that others may write are made 0644 and used.
TEST(SlotFactory, SlotObjectsOfAnotherUserOrThatOthersMayWriteAreRefusedUnmapped) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "planting another user's objects needs root";
    }
    ScopedSlotName name("owner");
    const SimpleSlotCfg cfg = Cfg(name, "reliable");
    SlotFactory::CreateSlot(&cfg);
    const std::string header = Slot::ShmPath(name),
                      queue = Slot::ShmPath(Slot::QueueObjectName(name));
    auto plant = [](const std::string& path, uid_t uid, mode_t mode) {
        ASSERT_EQ(0, ::chown(path.c_str(), uid, uid));
        ASSERT_EQ(0, ::chmod(path.c_str(), mode));
    };
    auto mapped = [&] {
        std::ifstream maps("/proc/self/maps");
        std::string line;
        while (std::getline(maps, line)) {
            if (line.find(header) != std::string::npos) {
                return true;
            }
        }
        return false;
    };
    const std::string refused = "Slot could not be created: ";
    const std::string foreign = " belongs to uid 65534, not to root or this user";
    plant(queue, 65534, 0644);
    plant(header, 65534, 0644);
    ExpectRefused(cfg, refused + "'" + queue + "'" + foreign);
    plant(queue, 0, 0644);
    ExpectRefused(cfg, refused + "'" + header + "'" + foreign);
    EXPECT_THROW(
        try {
            delete shared::CreateSharedMemory(boost::interprocess::open_or_create, name.c_str(),
                                              4096);
        } catch (const boost::interprocess::interprocess_exception& e) {
            EXPECT_EQ("'" + header + "'" + foreign, std::string(e.what()));
            throw;
        },
        boost::interprocess::interprocess_exception);
    EXPECT_FALSE(mapped());
    EXPECT_FALSE(ProcessHasOpen(header));
    EXPECT_FALSE(ProcessHasOpen(queue));

    // Root's objects that others may write: another user refuses them and leaves them as they are.
    plant(queue, 0, 0666);
    plant(header, 0, 0666);
    const testsupport::ChildResult child = testsupport::RunInChild([&] {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
            return testsupport::Failed(2, "cannot become nobody");
        }
        const std::string what = RefusalOf([&] { SlotFactory::CreateSlotWriter(&cfg); });
        if (what != refused + "others may write '" + queue + "' (mode 0666)") {
            return testsupport::Failed(3, what);
        }
        return 0;
    });
    EXPECT_TRUE(child.Ok()) << child.Describe();
    // This user's own are made 0644 and used.
    EXPECT_TRUE(SlotFactory::CreateSlotWriter(&cfg));
    for (const std::string& path : {header, queue}) {
        struct stat st;
        ASSERT_EQ(0, ::stat(path.c_str(), &st));
        EXPECT_EQ(0644u, st.st_mode & 07777) << path;
    }
}

// What the factory makes is logged; a pipe goes through the file system only.
TEST(SlotFactory, LogsWhatItCreatesAndAPipeGoesThroughTheFileSystemOnly) {
    ScopedSlotName d("info"), r("info"), e("info"), name("pipe");
    LogCapture log("Slot", log4cxx::Level::getInfo());
    const SimpleSlotCfg discarding = Cfg(d, "discarding", 4, 0),
                        reliable = Cfg(r, "reliable", 4, 0), empty = Cfg(e, "", 4, 0),
                        cfg = Cfg(name, "posix-pipe");
    SlotFactory::CreateSlotWriter(&discarding);
    SlotFactory::CreateSlotWriter(&reliable);
    SlotFactory::CreateSlotReader(&empty);
    SlotFactory::CreateSlotReader(&reliable);
    const std::string path = FileUtils::NamedPipeCreator::ConstructPipeFilename(name);
    {
        ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
        EXPECT_TRUE(ProcessHasOpen(path)) << "the writer's stream is open when it is returned";
        INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg);
        ASSERT_TRUE(reader);
    }
    EXPECT_EQ((std::vector<std::string>{"Creating SlotWriter and DiscardingSlot for " + d.str(),
                                        "Creating SlotWriter and ReliableSlot for " + r.str(),
                                        "Creating DiscardingSlotReader for " + e.str(),
                                        "Creating ReliableSlotReader for " + r.str(),
                                        "Creating FStreamSubscriber for posix-pipe " + name.str(),
                                        "Creating FileReader for posix-pipe " + name.str()}),
              FactoryMessages(log));
    EXPECT_FALSE(ShmExists(name.str()));
    EXPECT_FALSE(ShmExists("queue_" + name.str()));
    ::unlink(path.c_str());

    // A directory in the way: the error names the path, not the bare slot name.
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0700));
    ExpectRefused(cfg, "Failed to create named pipe " + path, true, {1, 2});
    ::rmdir(path.c_str());
}

}  // namespace
