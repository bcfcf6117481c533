// SPDX-License-Identifier: Apache-2.0
// slotctl hz, bw, peek, rm with attached processes, framed and NDJSON I/O, and
// the manual page and completion: the real binary on real slots.
#include "ChildProcess.h"
#include "Eventually.h"
#include "Files.h"
#include "HeaderHolder.h"
#include "ShmHygiene.h"
#include "SlotctlRunner.h"

#include <Slot/SlotFactory.h>
#include <Slot/SlotNames.h>
#include <Slot/SlotSurvey.h>
#include <Slot/Version.h>

#include <FileUtils/FSUtils.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <regex>
#include <thread>

namespace {

using slotctltest::Background;
using slotctltest::Exists;
using slotctltest::Frames;
using slotctltest::Lines;
using slotctltest::Options;
using slotctltest::Outcome;
using slotctltest::Slotctl;
using slotctltest::SlotctlEnding;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using testsupport::ChildProcess;
using testsupport::ScopedSlotName;

// The total the summary line "slotctl: N writes to ..." reports.
long WritesCounted(const Outcome& run) {
    std::smatch match;
    static const std::regex total("slotctl: ([0-9]+) writes to");
    return std::regex_search(run.err, match, total) ? std::stol(match[1]) : -1;
}

// ---- hz and bw ----

TEST(SlotctlWatch, HzAndBwCountEveryWriteWhileTheReliableReaderGetsEveryBlock) {
    ScopedSlotName name("hz");
    const int blocks = 40;
    // The slot exists before anything watches it; the reader takes this first block.
    ASSERT_EQ(
        0, Slotctl({"write", name.str(), "--type", "reliable", "--queue", "64", "first"}).status);
    Background reader(
        {"read", name.str(), "--count", std::to_string(blocks + 1), "--timeout", "60000"});
    ASSERT_TRUE(reader.WaitForErr("slotctl: reading")) << reader.Finish().Describe();
    ASSERT_TRUE(reader.WaitForOut("5 bytes: first"));
    Background hz({"hz", name.str(), "--window", "0.1"});
    Background bw({"bw", name.str(), "--window", "0.1"});
    ASSERT_TRUE(hz.WaitForErr("counting writes")) << hz.Finish().Describe();
    ASSERT_TRUE(bw.WaitForErr("counting writes")) << bw.Finish().Describe();

    const Outcome writer = Slotctl(
        {"write", name.str(), "--count", std::to_string(blocks), "--every", "2", "0123456789"});
    ASSERT_EQ(0, writer.status) << writer.Describe();
    const Outcome read = reader.FinishEnding(0);
    // Watching took nothing: the one reader got every block.
    EXPECT_EQ(static_cast<size_t>(blocks + 1), Lines(read.out).size()) << read.Describe();

    // Ctrl-C ends the watch; the writes since the last window are counted too.
    hz.Signal(SIGINT);
    bw.Signal(SIGINT);
    const Outcome hzRun = hz.Finish();
    const Outcome bwRun = bw.Finish();
    EXPECT_EQ(130, hzRun.status) << hzRun.Describe();
    EXPECT_EQ(blocks, WritesCounted(hzRun)) << hzRun.Describe();
    EXPECT_EQ(blocks, WritesCounted(bwRun)) << bwRun.Describe();
    EXPECT_THAT(hzRun.out, AllOf(HasSubstr("rate: "), HasSubstr(" writes/s")));
    // bw is labelled an estimate and uses the size of the block the reader took last.
    EXPECT_THAT(bwRun.out, AllOf(HasSubstr("estimated bandwidth: "), HasSubstr("x 10 bytes")));
    EXPECT_EQ(0u, SlotSurvey::InspectSlot(name).queue.waiting);
}

// hz ends at its --timeout (status 0); hz and bw end when their output fails, as peek and top do
// (status 1): quietly when the reader went away (| head), with the reason otherwise. (What they
// refuse is in SlotctlErrors.)
TEST(SlotctlWatch, HzAndBwEndAtTheTimeOutAndWhenTheirOutputFails) {
    ScopedSlotName name("hzout");
    ASSERT_EQ(0, Slotctl({"write", name.str(), "x"}).status);
    const Outcome quiet =
        SlotctlEnding(0, {"hz", name.str(), "--window", "0.1", "--timeout", "300"});
    EXPECT_EQ(0, WritesCounted(quiet)) << quiet.Describe();
    EXPECT_GE(Lines(quiet.out).size(), 2u) << quiet.Describe();
    const std::string err = testsupport::TestRunDir() + "/" + name.str() + ".err";
    for (const std::string command : {"hz", "bw"}) {
        const std::string run = "\"$0\" " + command + " " + name.str() + " --window 0.05";
        const slotctltest::ShellRun gone = slotctltest::InShell(
            run + " 2>" + err + " | head -n 1 >/dev/null; echo ${PIPESTATUS[0]}");
        EXPECT_EQ("1\n", gone.out) << command;
        EXPECT_THAT(testsupport::ReadFile(err), Not(HasSubstr("cannot write"))) << command;
        const slotctltest::ShellRun full = slotctltest::InShell(
            run + " 2>&1 >/dev/full | grep \"standard output\"; echo ${PIPESTATUS[0]}");
        EXPECT_EQ("slotctl: cannot write standard output: No space left on device\n1\n", full.out)
            << command;
    }
}

// ---- peek ----

// Polls the slot's waiting blocks until there are `n` (a writer in another process stores them).
bool WaitForWaiting(const std::string& name, std::uint64_t n) {
    return testsupport::Eventually([&] { return SlotSurvey::InspectSlot(name).queue.waiting == n; },
                                   std::chrono::seconds(30), std::chrono::milliseconds(5));
}

TEST(SlotctlWatch, PeekShowsTheLastBlockTakenAndChangesNothing) {
    ScopedSlotName name("peek");
    const std::string block("a\tb\x01\xff", 5);
    // One writer stays open throughout: opening a slot resets its output buffer.
    Background writer({"write", name.str(), "--type", "reliable", "--lines"});
    writer.Write(block + "\n");
    ASSERT_TRUE(WaitForWaiting(name, 1));
    ASSERT_EQ(0, Slotctl({"read", name.str(), "--format", "raw"}).status);
    // A second block waits: peek must neither take it nor replace the buffer's copy.
    writer.Write("second\n");
    ASSERT_TRUE(WaitForWaiting(name, 1));
    const SlotReport before = SlotSurvey::InspectSlot(name);

    const Outcome raw = SlotctlEnding(0, {"peek", name.str(), "--format", "raw"});
    EXPECT_EQ(block, raw.out);
    const Outcome hex = Slotctl({"peek", name.str(), "--format", "hex"});
    EXPECT_THAT(hex.out, HasSubstr("61 09 62 01 ff"));
    const Outcome frames = Slotctl({"peek", name.str(), "--format", "frames"});
    EXPECT_EQ(Frames({block}), frames.out);

    const SlotReport after = SlotSurvey::InspectSlot(name);
    EXPECT_EQ(1u, after.queue.waiting);
    EXPECT_EQ(before.header.lastWrite, after.header.lastWrite);
    EXPECT_EQ(5u, after.header.outputDataSize);
    EXPECT_EQ(0, after.readerPid);
    EXPECT_EQ(0, writer.Finish().status);
    const Outcome next = Slotctl({"read", name.str()});
    EXPECT_EQ("6 bytes: second\n", next.out) << next.Describe();
}

// ---- attached processes and rm ----

TEST(SlotctlAttached, LsInfoAndASecondReaderNameTheReaderAndRmRefusesUnlessForced) {
    ScopedSlotName name("attached");
    ASSERT_EQ(0, Slotctl({"write", name.str(), "--type", "reliable", "x"}).status);
    // Options that change nothing make the command line longer than rm shows of it.
    Background reader({"read", name.str(), "--follow", "--format", "text", "--update-time", "100"});
    ASSERT_TRUE(reader.WaitForOut("1 bytes: x")) << reader.Finish().Describe();
    const std::string pid = std::to_string(reader.Pid());
    const Outcome ls = Slotctl({"ls"});
    EXPECT_THAT(slotctltest::LineStartingWith(ls.out, name.str() + " "), HasSubstr("pid " + pid));
    // A second reader is refused, and told who holds the slot.
    const Outcome second = SlotctlEnding(1, {"read", name.str(), "--timeout", "1000"});
    EXPECT_THAT(second.err, HasSubstr("(its reader is pid " + pid + ")"));

    const Outcome info = SlotctlEnding(0, {"info", name.str()});
    EXPECT_TRUE(std::regex_search(info.out, std::regex("\n +" + pid +
                                                       "  .*header, queue, reader lock  .*"
                                                       "slotctl read " +
                                                       name.str() + " --follow")))
        << info.out;
    // Another test's "ls" may map the slot for a moment: only the reader stays.
    nlohmann::json json;
    testsupport::Eventually(
        [&] {
            json = nlohmann::json::parse(Slotctl({"info", "--json", name.str()}).out);
            return json["attached"].size() == 1;
        },
        std::chrono::seconds(10), std::chrono::milliseconds(100));
    ASSERT_EQ(1u, json["attached"].size()) << json.dump();
    EXPECT_EQ(reader.Pid(), json["attached"][0]["pid"].get<int>());
    EXPECT_TRUE(json["attached"][0]["reader"].get<bool>());

    const Outcome refused = SlotctlEnding(1, {"rm", name.str()});
    EXPECT_THAT(refused.err,
                AllOf(HasSubstr("is in use by 1 process: pid " + pid), HasSubstr("--force")));
    // The command line is shown up to 80 characters, and "..." says it was cut.
    std::string command = testsupport::ReadFile("/proc/" + pid + "/cmdline");
    std::replace(command.begin(), command.end(), '\0', ' ');
    command.pop_back();
    ASSERT_GT(command.size(), 80u) << command;
    EXPECT_THAT(refused.err, HasSubstr("pid " + pid + " (" + command.substr(0, 80) + "...: "));
    EXPECT_TRUE(Exists("/dev/shm/" + name.str()));

    const Outcome forced = SlotctlEnding(0, {"rm", "--force", name.str()});
    EXPECT_THAT(forced.err, HasSubstr("warning: removing"));
    // The live reader keeps its lock file.
    EXPECT_THAT(forced.err, HasSubstr("kept lock file"));
    EXPECT_FALSE(Exists("/dev/shm/" + name.str()));
    reader.Signal(SIGINT);
    EXPECT_EQ(130, reader.Finish().status);
}

// Another slotctl's "ls" opens every slot's queue for a moment; rm must not take that for a user.
TEST(SlotctlAttached, RmIsNotRefusedByAProcessThatOnlyGlancesAtTheSlot) {
    ScopedSlotName name("glance");
    ASSERT_EQ(0, Slotctl({"write", name.str(), "x"}).status);
    testsupport::PipeSignal ready;
    const std::string queue = "/" + Slot::QueueObjectName(name.str());
    ChildProcess glance([&] {
        const int fd = ::shm_open(queue.c_str(), O_RDONLY, 0);
        void* const map = fd < 0 ? MAP_FAILED : ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
        if (map == MAP_FAILED) {
            return testsupport::Failed(2, "could not map " + queue);
        }
        ready.Post();
        ::usleep(300 * 1000);
        ::munmap(map, 4096);
        ::close(fd);
        ::sleep(30);  // alive but no longer attached
        return 0;
    });
    ASSERT_TRUE(ready.WaitFor()) << glance.Wait().Describe();
    SlotctlEnding(0, {"rm", name.str()});
    EXPECT_FALSE(Exists("/dev/shm/" + name.str()));
    glance.Kill();
}

// A pipe folder reached through a symlink is one the library refuses: neither ls nor rm
// follows it to a FIFO of the folder it points at.
TEST(SlotctlAttached, RmNeverRemovesAPipeThroughASymlinkedFolder) {
    ScopedSlotName name("linked");
    const std::string fifo = testsupport::TestRunDir() + "/" + name.str() + ".fifo";
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    const std::string link = testsupport::TestRunDir() + "-" + name.str() + ".link";
    ASSERT_EQ(0, ::symlink(testsupport::TestRunDir().c_str(), link.c_str()));
    const std::string pipeDir = ::getenv("SLOT_PIPE_DIR");
    ::setenv("SLOT_PIPE_DIR", link.c_str(), 1);
    const Outcome ls = Slotctl({"ls", "--json"});
    const Outcome rm = Slotctl({"rm", name.str()});
    ::setenv("SLOT_PIPE_DIR", pipeDir.c_str(), 1);
    ::unlink(link.c_str());
    EXPECT_THAT(ls.out, ::testing::Not(HasSubstr(name.str()))) << ls.Describe();
    EXPECT_NE(0, rm.status) << rm.Describe();
    EXPECT_TRUE(Exists(fifo));
    ::unlink(fifo.c_str());
}

// The lock file a reader left, and the claim file a killed gateway left, go with their slot
// (rm), and alone once the slot is gone (rm, rm --stale); a symlink planted under the reader's
// lock file's name is neither followed nor removed.
TEST(SlotctlAttached, RmRemovesTheOrphanedReaderLockFile) {
    ScopedSlotName name("orphan");
    const std::string lockFile = FileUtils::FSUtils::GetSingletonFileLockName(name);
    const std::string claimFile = FileUtils::FSUtils::GetGatewayClaimFileName(name);
    const std::string both = "lock file " + lockFile + ", lock file " + claimFile;
    const std::string alone = "removed '" + name.str() + "' (no slot left): " + both + "\n";
    // (rm --stale without names would look at every slot of the machine, other runs' too.)
    for (const auto& rm :
         {std::make_pair(std::vector<std::string>{"rm", name.str()}, false),
          std::make_pair(std::vector<std::string>{"rm", name.str()}, true),
          std::make_pair(std::vector<std::string>{"rm", "--stale", name.str()}, true)}) {
        ASSERT_EQ(0, Slotctl({"write", name.str(), "--type", "reliable", "x"}).status);
        ASSERT_EQ(0, Slotctl({"read", name.str()}).status);
        if (rm.second) {
            SlotFactory::RemoveSlot(name);  // the shared memory alone
        }
        ASSERT_TRUE(Exists(lockFile)) << "the reader left no lock file: nothing to test";
        std::ofstream(claimFile).close();  // unheld, as a killed gateway leaves it
        const Outcome run = SlotctlEnding(0, rm.first);
        EXPECT_THAT(run.out, HasSubstr(rm.second ? alone : both));
        EXPECT_FALSE(Exists(lockFile)) << run.Describe();
        EXPECT_FALSE(Exists(claimFile)) << run.Describe();
    }
    ASSERT_EQ(0, Slotctl({"write", name.str(), "--type", "reliable", "x"}).status);
    const std::string victim = testsupport::TestRunDir() + "/" + name.str() + ".victim";
    std::ofstream(victim) << "keep";
    ASSERT_EQ(0, ::symlink(victim.c_str(), lockFile.c_str()));
    const Outcome planted = SlotctlEnding(1, {"rm", name.str()});
    EXPECT_THAT(planted.err, HasSubstr("not a plain file"));
    EXPECT_TRUE(Exists(victim));
}

// ---- read --timeout ----

TEST(SlotctlTimeout, ReadAndWriteThatGiveUpWaitingEndWithStatus124) {
    ScopedSlotName name("idle");
    ASSERT_EQ(0, Slotctl({"write", name.str(), "--type", "reliable", "first"}).status);
    const Outcome follow = SlotctlEnding(124, {"read", name.str(), "--follow", "--timeout", "300"});
    EXPECT_EQ("5 bytes: first\n", follow.out) << "the block before the timeout is printed";
    EXPECT_THAT(follow.err,
                HasSubstr("slotctl: no block from '" + name.str() + "' within 300 ms (1 read)"));

    const Outcome count =
        SlotctlEnding(124, {"read", name.str(), "--count", "2", "--timeout", "300"});
    EXPECT_THAT(count.err, HasSubstr("within 300 ms (0 of 2 read)"));

    // A read that got what it asked for is a success, with or without --timeout.
    ASSERT_EQ(0, Slotctl({"write", name.str(), "second"}).status);
    EXPECT_EQ(0, Slotctl({"read", name.str(), "--timeout", "20000"}).status);

    // A --timeout that ends the wait for a held lock says which wait it ended, and that the lock
    // is held, as a look at the slot shows.
    ScopedSlotName held("heldwrite");
    testsupport::HeaderHolder holder(held);
    ASSERT_TRUE(holder.WaitLocked()) << holder.Child().Wait().Describe();
    const Outcome write = Slotctl({"write", held.str(), "--timeout", "300", "x"});
    holder.Release();
    holder.Child().Wait();
    EXPECT_EQ(124, write.status) << write.Describe();
    EXPECT_EQ("slotctl: cannot write to '" + held.str() +
                  "': not opened within 300 ms (its lock is held)\n",
              write.err);
}

// A live holder that keeps the slot's lock past the library's bound on opening (2 s), here one
// stopped with SIGSTOP: opening waits on for --timeout (124 with its text, not the library's
// give-up), without it until Ctrl-C (130), and succeeds once the holder lets go.
TEST(SlotctlTimeout, OpeningWaitsPastTheLibrarysBoundForAStoppedHolder) {
    ScopedSlotName name("stopped");
    testsupport::HeaderHolder holder(name);
    ASSERT_TRUE(holder.WaitLocked()) << holder.Child().Wait().Describe();
    // Should the test end early, the holder's destructor kills it, stopped or not.
    ASSERT_EQ(0, ::kill(holder.Child().Pid(), SIGSTOP));
    const auto started = std::chrono::steady_clock::now();
    Background timed({"write", name.str(), "--timeout", "3000", "x"});
    Background interrupted({"write", name.str(), "z"});
    Background writer({"write", name.str(), "y"});
    Background reader({"read", name.str(), "--timeout", "60000"});
    const Outcome timedOut = timed.Finish();
    const auto took = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(124, timedOut.status) << timedOut.Describe();
    EXPECT_EQ("slotctl: cannot write to '" + name.str() +
                  "': not opened within 3000 ms (its lock is held)\n",
              timedOut.err);
    EXPECT_GE(took, std::chrono::milliseconds(2900));
    EXPECT_LT(took, std::chrono::seconds(10));

    // The others still wait, past the library's bound.
    interrupted.Signal(SIGINT);
    interrupted.FinishEnding(130);
    holder.Release();
    ::kill(holder.Child().Pid(), SIGCONT);
    writer.FinishEnding(0);
    EXPECT_EQ("1 bytes: y\n", reader.FinishEnding(0).out);
    EXPECT_TRUE(holder.Child().Wait().Ok());
}

// ---- framed and NDJSON I/O ----

TEST(SlotctlFrames, BinaryBlocksPassIntactThroughAPipeBetweenTwoSlotctlsAndAsNdjson) {
    ScopedSlotName from("framesa"), to("framesb");
    std::string big;
    for (int i = 0; i < 3000; ++i) {
        big += static_cast<char>(i * 7);
    }
    const std::vector<std::string> blocks = {std::string("\0\0\0\0", 4), "", big,
                                             std::string("\xff\xfe\n\r", 4), "last"};
    const std::string frames = Frames(blocks);
    const Outcome filled = Slotctl(
        {"write", from.str(), "--type", "reliable", "--queue", "8", "--frames"}, Options{frames});
    ASSERT_EQ(0, filled.status) << filled.Describe();
    ASSERT_THAT(filled.err, HasSubstr("5 blocks to"));

    const slotctltest::ShellRun piped =
        slotctltest::InShell("set -o pipefail; \"$0\" read " + from.str() +
                                 " --count 5 --format frames | \"$0\" write " + to.str() +
                                 " --frames --type reliable --queue 8 2>/dev/null; echo $?",
                             60);
    ASSERT_EQ("0\n", piped.out);

    const Outcome out =
        SlotctlEnding(0, {"read", to.str(), "--count", std::to_string(blocks.size()), "--format",
                          "frames", "--timeout", "10000"});
    EXPECT_TRUE(frames == out.out)
        << "the blocks changed on the way: " << out.out.size() << " bytes of " << frames.size();

    // NDJSON: a line per block with its time, size and bytes in base64.
    ASSERT_EQ(0, Slotctl({"write", from.str(), "--frames"},
                         Options{Frames({"abc", std::string("\0\xff", 2), ""})})
                     .status);
    const Outcome read =
        Slotctl({"read", from.str(), "--count", "3", "--format", "ndjson", "--timeout", "10000"});
    ASSERT_EQ(0, read.status) << read.Describe();

    const std::vector<std::string> lines = Lines(read.out);
    ASSERT_EQ(3u, lines.size()) << read.out;
    const struct {
        size_t size;
        const char* base64;
    } expected[] = {{3, "YWJj"}, {2, "AP8="}, {0, ""}};
    for (size_t i = 0; i < lines.size(); ++i) {
        const nlohmann::json line = nlohmann::json::parse(lines[i]);
        EXPECT_EQ(expected[i].size, line["size"].get<size_t>()) << lines[i];
        EXPECT_EQ(expected[i].base64, line["base64"].get<std::string>()) << lines[i];
        EXPECT_TRUE(std::regex_match(line["time"].get<std::string>(),
                                     std::regex("20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9:.]+Z")))
            << lines[i];
    }
}

TEST(SlotctlFrames, TruncatedOrOversizedInputIsAClearError) {
    ScopedSlotName name("truncated");
    const Outcome cut = SlotctlEnding(1, {"write", name.str(), "--type", "reliable", "--frames"},
                                      Options{Frames({"whole"}) + std::string("\x09\0\0\0ab", 6)});
    EXPECT_THAT(cut.err, AllOf(HasSubstr("1 block to"),
                               HasSubstr("standard input ends inside a frame (6 bytes")));
    EXPECT_EQ(1u, SlotSurvey::InspectSlot(name).queue.waiting);

    const Outcome header =
        SlotctlEnding(1, {"write", name.str(), "--frames"}, Options{std::string("\x01\0", 2)});
    EXPECT_THAT(header.err, HasSubstr("ends inside a frame"));

    // A length beyond the slot's block size is refused before its bytes are awaited.
    const Outcome huge = SlotctlEnding(1, {"write", name.str(), "--frames"},
                                       Options{std::string("\xff\xff\xff\x7f", 4)});
    EXPECT_THAT(huge.err, HasSubstr("larger than the slot's maximum block size"));
}

// ---- manual page and completion ----

// What bash completion offers for the command line `words` (the last one being completed).
std::vector<std::string> Completions(const std::vector<std::string>& words) {
    std::string array;
    for (const std::string& word : words) {
        array += " \"" + word + "\"";
    }
    const slotctltest::ShellRun run = slotctltest::InShell(
        "source \"" SLOTCTL_SOURCE_DIR "/slotctl.bash-completion\"; COMP_WORDS=(" + array +
        "); COMP_CWORD=" + std::to_string(words.size() - 1) +
        "; _slotctl; printf \"%s\\n\" \"${COMPREPLY[@]}\"");
    EXPECT_EQ(0, run.status) << run.out;
    std::vector<std::string> lines = Lines(run.out);
    lines.erase(std::remove(lines.begin(), lines.end(), ""), lines.end());
    return lines;
}

// Help, the manual page and completion know every command; the version is the project's.
TEST(SlotctlDocs, HelpManualPageAndCompletionKnowEveryCommand) {
    const std::string man = testsupport::ReadFile(SLOTCTL_SOURCE_DIR "/slotctl.1");
    ASSERT_FALSE(man.empty());
    const Outcome help = SlotctlEnding(0, {"--help"});
    const Outcome version = SlotctlEnding(0, {"--version"});
    EXPECT_EQ(std::string("slotctl ") + SLOT_VERSION_STRING + "\n", version.out);
    std::string commands = help.out.substr(help.out.find("commands:"));
    commands = commands.substr(0, commands.find("options"));
    const std::vector<std::string> all = Completions({"slotctl", ""});
    for (const std::string command : {"ls", "info", "write", "read", "rm", "hz", "bw", "peek",
                                      "top", "record", "replay", "demo", "help"}) {
        EXPECT_THAT(commands, HasSubstr(" " + command + " ")) << command;
        EXPECT_NE(all.end(), std::find(all.begin(), all.end(), command)) << command;
        // The command's entry (.TP, then its name) names every option of its help; --pool and
        // --slot, common to the commands that take pools, have their own section.
        std::smatch entry;
        if (!std::regex_search(man, entry,
                               std::regex("\n\\.TP\n\\.B[IR]? \"?" + command + "\\b"))) {
            ADD_FAILURE() << command << " is not in the manual page";
            continue;
        }
        const std::string rest = entry.suffix();
        std::smatch next;
        const std::string section = std::regex_search(rest, next, std::regex("\n\\.(TP|SH)\n"))
                                        ? next.prefix().str()
                                        : rest;
        // `COMMAND --help` is `help COMMAND`, `help help` too.
        const std::string usage = SlotctlEnding(0, {"help", command}).out;
        EXPECT_EQ(usage, SlotctlEnding(0, {command, "--help"}).out);
        // bw shares hz's usage, as its second line.
        const std::string start = command == "bw" ? "usage: slotctl hz NAME [--window SECS] "
                                                    "[--timeout MS]\n       slotctl bw "
                                                  : "usage: slotctl " + command + " ";
        EXPECT_EQ(0u, usage.find(start)) << usage;
        const std::regex optionLine("\n +(--[a-z][a-z-]*)");
        for (auto it = std::sregex_iterator(usage.begin(), usage.end(), optionLine);
             it != std::sregex_iterator(); ++it) {
            const std::string option = (*it)[1];
            if (option == "--pool" || option == "--slot") {
                continue;
            }
            // "--update-time" is written "\-\-update\-time".
            const std::string roff = std::regex_replace(option, std::regex("-"), "\\-");
            EXPECT_NE(std::string::npos, section.find(roff))
                << command << " " << option << " is not in its entry of the manual page";
        }
    }
    // Each command's options, their values, and slot names for operands.
    EXPECT_EQ(std::vector<std::string>{"--frames"}, Completions({"slotctl", "write", "--fr"}));
    EXPECT_EQ(std::vector<std::string>{"--force"}, Completions({"slotctl", "-v", "rm", "--f"}));
    EXPECT_EQ(std::vector<std::string>{"--interval"}, Completions({"slotctl", "top", "--i"}));
    EXPECT_EQ((std::vector<std::string>{"frames"}),
              Completions({"slotctl", "read", "x", "--format", "fr"}));
    ScopedSlotName name("completed");
    ASSERT_EQ(0, Slotctl({"write", name.str(), "x"}).status);
    const std::string slotctl = SLOTCTL_PATH;
    EXPECT_EQ(std::vector<std::string>{name.str()},
              Completions({slotctl, "hz", name.str().substr(0, name.str().size() - 3)}));
}

}  // namespace
