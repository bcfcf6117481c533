// SPDX-License-Identifier: Apache-2.0
// slotctl top: its snapshots (--once, --json) from the real binary, and its full-screen view
// driven the way a person uses it, in a tmux session of fixed size.
#include "Eventually.h"
#include "Files.h"
#include "ShmHygiene.h"
#include "SlotctlRunner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <thread>

namespace {

using slotctltest::Background;
using slotctltest::Contains;
using slotctltest::Lines;
using slotctltest::Outcome;
using slotctltest::Slotctl;
using slotctltest::SlotctlEnding;
using slotctltest::Words;
using ::testing::HasSubstr;
using testsupport::ScopedSlotName;

// The line of a table that shows `name` (cut names aside), or "".
std::string RowOf(const std::string& table, const std::string& name) {
    return slotctltest::LineStartingWith(table, name + " ");
}

// The WRITE/S of a row; -1 when unknown.
double WritesPerSecond(const std::string& row) {
    const std::vector<std::string> words = Words(row);
    return words.size() > 3 && words[3] != "-" ? std::stod(words[3]) : -1;
}

// Polls `look` until `done` holds for what it returns, for up to 30 s; the last look in `*last`.
bool Eventually(const std::function<std::string()>& look,
                const std::function<bool(const std::string&)>& done, std::string* last) {
    return testsupport::Eventually([&] { return done(*last = look()); }, std::chrono::seconds(30),
                                   std::chrono::milliseconds(50));
}

// ---- snapshots ----

TEST(SlotctlTop, OnceShowsEverySlotWithItsTrafficAndTakesNothing) {
    ScopedSlotName busy("busy"), kept("kept");
    ASSERT_EQ(0,
              Slotctl({"write", kept.str(), "--type", "reliable", "--queue", "8", "one"}).status);
    Background writer({"write", busy.str(), "--every", "5", "x"});

    std::string table;
    ASSERT_TRUE(Eventually(
        [] {
            const Outcome once = Slotctl({"top", "--once", "--interval", "0.3"});
            return once.status == 0 ? once.out : "status " + once.Describe();
        },
        [&](const std::string& out) { return WritesPerSecond(RowOf(out, busy.str())) > 0; },
        &table))
        << table;
    EXPECT_EQ((std::vector<std::string>{"NAME", "KIND", "STATE", "WRITE/S", "MB/S", "WAITING",
                                        "READER", "ATT", "LAST"}),
              Words(Lines(table).at(0)));
    // The writer is attached to its slot; nobody to the other, whose reader lock is free.
    const std::vector<std::string> busyRow = Words(RowOf(table, busy.str()));
    ASSERT_EQ(10u, busyRow.size()) << table;  // MB/S unknown: no block taken yet
    EXPECT_EQ("discarding", busyRow[1]);
    EXPECT_EQ("1", busyRow[8]);
    std::vector<std::string> keptRow = Words(RowOf(table, kept.str()));
    keptRow.resize(std::min<size_t>(keptRow.size(), 9));  // LAST aside
    EXPECT_EQ((std::vector<std::string>{kept.str(), "reliable", "slot", "0.0", "0.00", "1/8",
                                        "#....", "none", "0"}),
              keptRow)
        << table;

    // Not on a terminal, top prints one table without being asked to.
    const Outcome piped = SlotctlEnding(0, {"top", "--interval", "0.1"});
    const std::vector<std::string> pipedLines = Lines(piped.out);
    EXPECT_EQ(1, std::count_if(pipedLines.begin(), pipedLines.end(),
                               [](const std::string& line) { return line.rfind("NAME ", 0) == 0; }))
        << piped.out;
    EXPECT_FALSE(RowOf(piped.out, kept.str()).empty()) << piped.out;

    // Looking took nothing: the block is still there for the reader.
    const Outcome read =
        SlotctlEnding(0, {"read", kept.str(), "--count", "1", "--timeout", "10000"});
    EXPECT_THAT(read.out, HasSubstr("one"));
}

TEST(SlotctlTop, JsonIsLsFieldsWithTrafficOneSnapshotPerLine) {
    ScopedSlotName name(std::string("json\x01\x7f", 6));
    ASSERT_EQ(0, Slotctl({"write", name.str(), "x"}).status);

    const auto entry = [&](const nlohmann::ordered_json& slots) {
        for (const nlohmann::ordered_json& slot : slots) {
            if (slot["name"] == name.str()) {
                return slot;
            }
        }
        return nlohmann::ordered_json();
    };
    const Outcome once = Slotctl({"top", "--json", "--once", "--interval", "0.2"});
    ASSERT_EQ(0, once.status) << once.Describe();
    ASSERT_EQ(1u, Lines(once.out).size()) << once.out;
    const nlohmann::ordered_json snapshot = nlohmann::ordered_json::parse(once.out);
    EXPECT_EQ(0.2, snapshot["interval_seconds"]);
    EXPECT_TRUE(snapshot["time"].is_string());
    const nlohmann::ordered_json slot = entry(snapshot["slots"]);
    ASSERT_FALSE(slot.is_null()) << once.out;
    // ls's fields in ls's order, then the traffic.
    std::vector<std::string> keys, expected;
    for (const auto& item : slot.items()) {
        keys.push_back(item.key());
    }
    const nlohmann::ordered_json listed =
        entry(nlohmann::ordered_json::parse(Slotctl({"ls", "--json"}).out));
    for (const auto& item : listed.items()) {
        expected.push_back(item.key());
    }
    for (const char* key : {"writes_per_second", "bytes_per_second", "attached_processes",
                            "last_write_age_seconds"}) {
        expected.push_back(key);
    }
    EXPECT_EQ(expected, keys);
    EXPECT_EQ(0.0, slot["writes_per_second"]);
    EXPECT_EQ(0u, slot["attached_processes"]);
    EXPECT_TRUE(slot["last_write_age_seconds"].is_number()) << slot;

    // Without --once: a line per interval until Ctrl-C.
    Background stream({"top", "--json", "--interval", "0.1"});
    ASSERT_TRUE(stream.WaitForOut("}\n{")) << stream.Finish().Describe();
    stream.Signal(SIGINT);
    const Outcome streamed = stream.FinishEnding(130);
    ASSERT_GE(Lines(streamed.out).size(), 2u);
    std::string previous;
    for (const std::string& line : Lines(streamed.out)) {
        const std::string time = nlohmann::json::parse(line)["time"];
        EXPECT_LT(previous, time);
        previous = time;
    }
}

// (Its bad command lines are in SlotctlErrors.)

// ---- the full-screen view, in tmux ----

// A tmux server of its own (a unique socket), killed with everything in it at the end, also
// when the test fails.
class Tmux {
public:
    Tmux() : socket_(testsupport::UniqueName("tmux")) {}
    ~Tmux() {
        Run({"kill-server"});
        const char* dir = std::getenv("TMUX_TMPDIR");
        ::unlink(((dir != nullptr && *dir != '\0' ? dir : "/tmp") + std::string("/tmux-") +
                  std::to_string(::getuid()) + "/" + socket_)
                     .c_str());
    }

    static bool Installed() { return std::system("command -v tmux >/dev/null 2>&1") == 0; }

    // Runs tmux with `args` on this server, killed after 30 s; its output ("" when it failed).
    // Its output goes through a file: a server it starts would keep a pipe open.
    std::string Run(const std::vector<std::string>& args) {
        std::string command = "timeout -s KILL 30 tmux -L " + socket_ + " -f /dev/null";
        for (const std::string& arg : args) {
            command += " '";
            for (const char c : arg) {
                command += c == '\'' ? std::string("'\\''") : std::string(1, c);
            }
            command += "'";
        }
        const std::string out = testsupport::TestRunDir() + "/" + socket_ + ".out";
        const int status = std::system((command + " >" + out).c_str());
        return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? testsupport::ReadFile(out) : "";
    }

    // Starts `command` in session "top" of `columns` x `rows`; its pane stays when it ends.
    void Start(const std::string& command, int columns, int rows) {
        Run({"new-session", "-d", "-s", "top", "-x", std::to_string(columns), "-y",
             std::to_string(rows), command, ";", "set-option", "-t", "top", "remain-on-exit",
             "on"});
    }

    // What the pane shows; with `history`, what scrolled off its top too.
    std::string Pane(bool history = false) {
        return Run({"capture-pane", "-p", "-t", "top", "-S", history ? "-100" : "0"});
    }

    // Polls the pane until `done` holds for it; its last content in `*last`.
    bool WaitFor(const std::function<bool(const std::string&)>& done, std::string* last,
                 bool history = false) {
        return Eventually([this, history] { return Pane(history); }, done, last);
    }
    bool WaitFor(const std::string& text, std::string* last, bool history = false) {
        return WaitFor([&](const std::string& p) { return Contains(p, text); }, last, history);
    }

private:
    std::string socket_;
};

// slotctl top in a shell that says how it ended and whether the terminal is back in its
// ordinary (canonical, echoing) mode.
std::string TopCommand() {
    return std::string("'") + SLOTCTL_PATH +
           "' top --interval 0.2; echo \"top ended: $?\"; stty -a | tr ' ;' '\\n\\n' | "
           "grep -x -e icanon -e echo | tr '\\n' ' '; echo '(modes)'";
}

#define SKIP_WITHOUT_SCREEN()                                                               \
    if (!Tmux::Installed()) {                                                               \
        std::cerr << "*** SKIPPED: tmux is not installed (scripts/setup.sh installs it)\n"; \
        GTEST_SKIP() << "tmux is not installed";                                            \
    }                                                                                       \
    if (!SLOTCTL_TOP_SCREEN) {                                                              \
        std::cerr << "*** SKIPPED: slotctl was built without its full-screen view\n";       \
        GTEST_SKIP() << "slotctl was built without ncurses";                                \
    }

TEST(SlotctlTopScreen, ShowsSlotsLiveFollowsAResizeAndQuitsOnQ) {
    SKIP_WITHOUT_SCREEN();
    ScopedSlotName live("live"), gone("gone"), odd(std::string("odd\x01\x1b", 5));
    ASSERT_EQ(0, Slotctl({"write", gone.str(), "x"}).status);
    ASSERT_EQ(0, Slotctl({"write", odd.str(), "x"}).status);
    Background writer({"write", live.str(), "--every", "5", "x"});
    Tmux tmux;
    tmux.Start(TopCommand(), 120, 30);
    std::string pane;
    ASSERT_TRUE(tmux.WaitFor("WRITE/S", &pane)) << pane;

    // Only this test's slots: other slots of the machine could fill the screen.
    const std::string prefix = testsupport::TestNamePrefix();
    tmux.Run({"send-keys", "-t", "top", "-l", "/" + prefix});
    tmux.Run({"send-keys", "-t", "top", "Enter"});
    const std::string shownOdd = odd.str().substr(0, odd.str().size() - 2) + "\\x01\\x1b";
    ASSERT_TRUE(tmux.WaitFor(
        [&](const std::string& p) {
            return Contains(p, "3 match '" + prefix + "'") &&
                   WritesPerSecond(RowOf(p, live.str())) > 0 && !RowOf(p, gone.str()).empty() &&
                   !RowOf(p, shownOdd).empty();
        },
        &pane))
        << pane;
    EXPECT_THAT(RowOf(pane, live.str()), HasSubstr(" discarding slot ")) << pane;

    // A slot removed while shown leaves the screen.
    ASSERT_EQ(0, Slotctl({"rm", gone.str()}).status);
    ASSERT_TRUE(tmux.WaitFor(
        [&](const std::string& p) {
            return RowOf(p, gone.str()).empty() && Contains(p, "2 match");
        },
        &pane))
        << pane;

    // Down to 80x24: the name column shrinks so that every line fits.
    tmux.Run({"resize-window", "-t", "top", "-x", "80", "-y", "24"});
    ASSERT_TRUE(
        tmux.WaitFor([&](const std::string& p) { return !RowOf(p, "slottest_~").empty(); }, &pane))
        << pane;
    for (const std::string& line : Lines(pane)) {
        EXPECT_LE(line.size(), 80u) << line;
    }
    EXPECT_EQ(24u, Lines(pane).size()) << pane;

    // `s` and `p` show in the status line.
    tmux.Run({"send-keys", "-t", "top", "s", "p"});
    ASSERT_TRUE(tmux.WaitFor(
        [](const std::string& p) { return Contains(p, "PAUSED") && Contains(p, "sort WRITE/S"); },
        &pane))
        << pane;

    tmux.Run({"send-keys", "-t", "top", "q"});
    ASSERT_TRUE(tmux.WaitFor("(modes)", &pane, true)) << pane;
    EXPECT_THAT(pane, HasSubstr("top ended: 0\nicanon echo (modes)"));
}

// A terminal that stopped taking output (Ctrl-S, a stalled ssh) holds curses inside a write
// that no signal cuts short; a stop signal still ends the view, with the terminal's modes given
// back (once it stayed, deaf to SIGTERM). Played on a pty of the test's own.
TEST(SlotctlTopScreen, AStopSignalEndsItAlsoWhileTheTerminalTakesNoOutput) {
    if (!SLOTCTL_TOP_SCREEN) {
        GTEST_SKIP() << "slotctl was built without ncurses";
    }
    slotctltest::Pty terminal;
    termios before{};
    ASSERT_EQ(0, ::tcgetattr(terminal.Slave(), &before));
    const char* const term = std::getenv("TERM");
    const std::string oldTerm = term == nullptr ? "" : term;
    ::setenv("TERM", "xterm", 1);
    Background top({"top", "--interval", "0.2"}, 0, terminal.SlavePath(), terminal.SlavePath(),
                   terminal.SlavePath());
    oldTerm.empty() ? ::unsetenv("TERM") : ::setenv("TERM", oldTerm.c_str(), 1);
    ASSERT_TRUE(terminal.WaitFor("WRITE/S")) << top.Finish().Describe();
    // Output stops; the filter's prompt is then drawn into the stopped terminal.
    terminal.Type("\x13/");
    bool blocked = false;
    const Outcome run = top.StopOnceBlockedIn({SYS_write}, blocked);
    EXPECT_TRUE(blocked);
    EXPECT_EQ(130, run.status) << run.Describe();
    termios after{};
    ASSERT_EQ(0, ::tcgetattr(terminal.Slave(), &after));
    EXPECT_EQ(before.c_lflag & (ICANON | ECHO), after.c_lflag & (ICANON | ECHO));
}

// Ctrl-\ (SIGQUIT) ends the view as Ctrl-C does (it once left the terminal in curses' modes).
TEST(SlotctlTopScreen, CtrlCAndCtrlBackslashEndItWithTheTerminalRestored) {
    SKIP_WITHOUT_SCREEN();
    for (const char* key : {"C-c", "C-\\"}) {
        Tmux tmux;
        tmux.Start(TopCommand(), 80, 24);
        std::string pane;
        ASSERT_TRUE(tmux.WaitFor("WRITE/S", &pane)) << pane;
        tmux.Run({"send-keys", "-t", "top", key});
        ASSERT_TRUE(tmux.WaitFor("(modes)", &pane, true)) << key << "\n" << pane;
        EXPECT_THAT(pane, HasSubstr("top ended: 130\nicanon echo (modes)")) << key;
    }
}

}  // namespace
