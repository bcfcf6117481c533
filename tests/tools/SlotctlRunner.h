// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ChildProcess.h"
#include "ShmHygiene.h"

#include <sys/types.h>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace slotctltest {

bool Contains(const std::string& text, const std::string& part);
using testsupport::Exists;
using testsupport::ShmExists;
std::vector<std::string> Lines(const std::string& text);
// The words of `line`, split at white space.
std::vector<std::string> Words(const std::string& line);
// The first line of `text` that starts with `start`; empty when none does.
std::string LineStartingWith(const std::string& text, const std::string& start);

// Blocks in slotctl's frames format: each after its length, 4 bytes little-endian.
std::string Frames(const std::vector<std::string>& blocks);

// How a slotctl run ended, and what it printed.
struct Outcome {
    bool exited = false;
    int status = -1;
    int signal = 0;
    bool timedOut = false;  // killed by the watchdog
    std::string out;
    std::string err;

    std::vector<std::string> ErrLines() const;
    std::string Describe() const;
};

struct Options {
    std::string input;  // written to its standard input, which is then closed
    std::chrono::milliseconds timeout = std::chrono::seconds(60);
    uid_t uid = 0;  // when not 0 (and we are root): run as this user
    // When set, its standard output is this file (such as /dev/full); `out` stays empty.
    std::string stdoutPath = "";
};

// Runs slotctl with `args` (the environment, SLOT_LOCK_DIR and SLOT_PIPE_DIR included, is
// passed on) and waits for it; the watchdog kills it at the time-out.
Outcome Slotctl(const std::vector<std::string>& args, const Options& options = Options());

// As Slotctl, and expects it to end with exit status `status` (described when it does not).
Outcome SlotctlEnding(int status, const std::vector<std::string>& args,
                      const Options& options = Options());

// Runs `script` with bash, slotctl's path as $0 (for pipes and redirections the runner has not),
// killed after `seconds`; what it printed on standard output, and its exit status. The script
// holds no single quote.
struct ShellRun {
    int status = -1;
    std::string out;
};
ShellRun InShell(const std::string& script, int seconds = 30);

// slotctl running in the background. The destructor kills it if it still runs.
class Background {
public:
    // `stdoutPath`: as Options::stdoutPath; `stderrPath` and `stdinPath` the same for standard
    // error (`err` stays empty) and standard input (Write then writes nothing).
    explicit Background(const std::vector<std::string>& args, uid_t uid = 0,
                        const std::string& stdoutPath = "", const std::string& stderrPath = "",
                        const std::string& stdinPath = "");
    ~Background();
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    pid_t Pid() const { return child_->Pid(); }
    // Writes to its standard input (small amounts: nothing reads it meanwhile).
    void Write(const std::string& input);
    // Reads its output until stderr (or stdout) holds `text`; false at the time-out or when
    // it ended first.
    bool WaitForErr(const std::string& text,
                    std::chrono::milliseconds timeout = std::chrono::seconds(30));
    bool WaitForOut(const std::string& text,
                    std::chrono::milliseconds timeout = std::chrono::seconds(30));
    void Signal(int signal);
    // Closes its standard input, collects the rest of its output and waits for it; kills it at
    // the time-out.
    Outcome Finish(std::chrono::milliseconds timeout = std::chrono::seconds(60));
    // As Finish, and expects it to end with exit status `status` (described when it does not).
    Outcome FinishEnding(int status, std::chrono::milliseconds timeout = std::chrono::seconds(60));

    // Whether its main thread is now blocked (sleeping) in one of the system calls `calls`
    // (SYS_... numbers), as /proc/<pid>/syscall and stat tell.
    bool BlockedIn(const std::vector<long>& calls) const;
    // Once its main thread is blocked in one of `calls` (30 s at most; `blocked` tells whether it
    // was seen so), stops it with SIGTERM and collects it (30 s at most).
    Outcome StopOnceBlockedIn(const std::vector<long>& calls, bool& blocked);

private:
    bool Pump(std::chrono::steady_clock::time_point deadline);
    bool WaitFor(const std::string& text, const std::string& which,
                 std::chrono::milliseconds timeout);

    std::unique_ptr<testsupport::ChildProcess> child_;
    int in_ = -1;
    int out_ = -1;
    int err_ = -1;
    Outcome run_;
};

// A pseudo-terminal of 80x24 that slotctl can be given as its terminal (SlavePath) while the
// test plays the terminal on the master side. Closed by the destructor.
class Pty {
public:
    Pty();
    ~Pty();
    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;

    const std::string& SlavePath() const { return slavePath_; }
    // Held open by the test, so that the terminal stays when slotctl ends: its modes are
    // read here.
    int Slave() const { return slave_; }
    // Types `keys` (XOFF "\x13" stops the terminal's output, as Ctrl-S does).
    void Type(const std::string& keys);
    // Types XOFF and returns once the terminal's output is stopped (the key is taken on a
    // kernel worker, later).
    void StopOutput();
    // Reads the output until it holds `text`; false at the time-out.
    bool WaitFor(const std::string& text,
                 std::chrono::milliseconds timeout = std::chrono::seconds(30));
    // Bytes of output waiting to be read now.
    int Waiting() const;

private:
    int master_ = -1;
    int slave_ = -1;
    std::string slavePath_;
    std::string output_;
};

}  // namespace slotctltest
