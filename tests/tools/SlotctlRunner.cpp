// SPDX-License-Identifier: Apache-2.0
#include "SlotctlRunner.h"

#include "Eventually.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace slotctltest {

namespace {

// Reads what is there from `fd` into `text`; closes it at end of file.
void Drain(int& fd, std::string& text) {
    char chunk[4096];
    const ssize_t n = ::read(fd, chunk, sizeof(chunk));
    if (n > 0) {
        text.append(chunk, static_cast<size_t>(n));
    } else if (n == 0 || errno != EINTR) {
        ::close(fd);
        fd = -1;
    }
}

}  // namespace

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> Words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

std::string LineStartingWith(const std::string& text, const std::string& start) {
    for (const std::string& line : Lines(text)) {
        if (line.compare(0, start.size(), start) == 0) {
            return line;
        }
    }
    return "";
}

std::string Frames(const std::vector<std::string>& blocks) {
    std::string out;
    for (const std::string& block : blocks) {
        const std::uint32_t size = static_cast<std::uint32_t>(block.size());
        for (int i = 0; i < 4; ++i) {
            out.push_back(static_cast<char>((size >> (8 * i)) & 0xff));
        }
        out += block;
    }
    return out;
}

std::vector<std::string> Outcome::ErrLines() const {
    return Lines(err);
}

std::string Outcome::Describe() const {
    std::ostringstream text;
    text << (timedOut ? "timed out, " : "") << "status " << status << " signal " << signal
         << "\n--- stdout ---\n"
         << out << "--- stderr ---\n"
         << err;
    return text.str();
}

Outcome Slotctl(const std::vector<std::string>& args, const Options& options) {
    Background child(args, options.uid, options.stdoutPath);
    child.Write(options.input);
    return child.Finish(options.timeout);
}

Outcome SlotctlEnding(int status, const std::vector<std::string>& args, const Options& options) {
    const Outcome run = Slotctl(args, options);
    std::string command = "slotctl";
    for (const std::string& arg : args) {
        command += " " + arg;
    }
    EXPECT_EQ(status, run.status) << command << "\n" << run.Describe();
    return run;
}

Background::Background(const std::vector<std::string>& args, uid_t uid,
                       const std::string& stdoutPath, const std::string& stderrPath,
                       const std::string& stdinPath) {
    // A child that ends before reading its input must not kill us with SIGPIPE.
    std::signal(SIGPIPE, SIG_IGN);
    int pin[2], pout[2], perr[2];
    if (::pipe2(pin, O_CLOEXEC) != 0 || ::pipe2(pout, O_CLOEXEC) != 0 ||
        ::pipe2(perr, O_CLOEXEC) != 0) {
        std::abort();
    }
    std::vector<char*> argv = {const_cast<char*>(SLOTCTL_PATH)};
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    child_.reset(new testsupport::ChildProcess([&] {
        // A path given: that file (without becoming its controlling terminal), else the pipe.
        auto use = [](const std::string& path, int flags, int pipeEnd, int fd) {
            const int file = path.empty() ? -1 : ::open(path.c_str(), flags | O_NOCTTY);
            ::dup2(file >= 0 ? file : pipeEnd, fd);
        };
        use(stdinPath, O_RDONLY, pin[0], STDIN_FILENO);
        use(stdoutPath, O_WRONLY, pout[1], STDOUT_FILENO);
        use(stderrPath, O_WRONLY, perr[1], STDERR_FILENO);
        if (uid != 0 && (::setgid(uid) != 0 || ::setuid(uid) != 0)) {
            return 126;
        }
        ::execv(SLOTCTL_PATH, argv.data());
        return 127;
    }));
    ::close(pin[0]);
    ::close(pout[1]);
    ::close(perr[1]);
    in_ = pin[1];
    out_ = pout[0];
    err_ = perr[0];
}

bool Background::BlockedIn(const std::vector<long>& calls) const {
    const std::string proc = "/proc/" + std::to_string(Pid());
    std::ifstream syscall(proc + "/syscall"), stat(proc + "/stat");
    long call = -1;
    std::string line;
    if (!(syscall >> call) || !std::getline(stat, line)) {
        return false;  // running ("running" is no number), or gone
    }
    // pid (command) state ...: the state follows the last ')'.
    const std::string::size_type close = line.rfind(')');
    return close != std::string::npos && line.compare(close, 4, ") S ") == 0 &&
           std::find(calls.begin(), calls.end(), call) != calls.end();
}

Outcome Background::StopOnceBlockedIn(const std::vector<long>& calls, bool& blocked) {
    blocked = testsupport::Eventually([&] { return BlockedIn(calls); }, std::chrono::seconds(30));
    Signal(SIGTERM);
    return Finish(std::chrono::seconds(30));
}

void Background::Write(const std::string& input) {
    size_t done = 0;
    while (in_ >= 0 && done < input.size()) {
        const ssize_t n = ::write(in_, input.data() + done, input.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
}

Background::~Background() {
    for (int fd : {in_, out_, err_}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

bool Background::Pump(std::chrono::steady_clock::time_point deadline) {
    if (out_ < 0 && err_ < 0) {
        return false;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        return false;
    }
    pollfd fds[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
    if (::poll(fds, 2, static_cast<int>(left.count())) <= 0) {
        return true;
    }
    if (out_ >= 0 && fds[0].revents != 0) {
        Drain(out_, run_.out);
    }
    if (err_ >= 0 && fds[1].revents != 0) {
        Drain(err_, run_.err);
    }
    return true;
}

bool Background::WaitFor(const std::string& text, const std::string& which,
                         std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const std::string& seen = which == "err" ? run_.err : run_.out;
        if (seen.find(text) != std::string::npos) {
            return true;
        }
        if (!Pump(deadline)) {
            return false;
        }
    }
}

bool Background::WaitForErr(const std::string& text, std::chrono::milliseconds timeout) {
    return WaitFor(text, "err", timeout);
}

bool Background::WaitForOut(const std::string& text, std::chrono::milliseconds timeout) {
    return WaitFor(text, "out", timeout);
}

void Background::Signal(int signal) {
    child_->Kill(signal);
}

Outcome Background::Finish(std::chrono::milliseconds timeout) {
    if (in_ >= 0) {
        ::close(in_);
        in_ = -1;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (Pump(deadline)) {
    }
    // Its output has ended, or goes elsewhere than to us: it has until the deadline to end.
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    const testsupport::ChildResult result = child_->Wait(std::max(left, left.zero()));
    run_.exited = result.exited;
    run_.status = result.exited ? result.exitCode : -1;
    run_.signal = result.signal;
    run_.timedOut = result.timedOut;
    return run_;
}

Outcome Background::FinishEnding(int status, std::chrono::milliseconds timeout) {
    const Outcome run = Finish(timeout);
    EXPECT_EQ(status, run.status) << run.Describe();
    return run;
}

ShellRun InShell(const std::string& script, int seconds) {
    const std::string command =
        "timeout -s KILL " + std::to_string(seconds) + " bash -c '" + script + "' " + SLOTCTL_PATH;
    ShellRun run;
    FILE* shell = ::popen(command.c_str(), "r");
    if (shell == nullptr) {
        return run;
    }
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), shell)) > 0) {
        run.out.append(buffer, n);
    }
    const int status = ::pclose(shell);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

Pty::Pty() {
    master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0) {
        std::abort();
    }
    slavePath_ = ::ptsname(master_);
    slave_ = ::open(slavePath_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    winsize size = {24, 80, 0, 0};
    if (slave_ < 0 || ::ioctl(master_, TIOCSWINSZ, &size) != 0) {
        std::abort();
    }
    ::fcntl(master_, F_SETFL, O_NONBLOCK);
}

Pty::~Pty() {
    ::close(slave_);
    ::close(master_);
}

void Pty::Type(const std::string& keys) {
    if (::write(master_, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
        std::abort();
    }
}

void Pty::StopOutput() {
    Type("\x13");
    // Stopped once a write that must not wait finds no room: until then the probe's bytes are
    // output like any other.
    const int probe = ::open(slavePath_.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (probe >= 0 && ::write(probe, ".", 1) == 1 &&
           std::chrono::steady_clock::now() < deadline) {
        ::usleep(1000);
    }
    ::close(probe);
}

bool Pty::WaitFor(const std::string& text, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (output_.find(text) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd fd = {master_, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&fd, 1, static_cast<int>(left.count())) < 0) {
            return false;
        }
        char chunk[4096];
        const ssize_t n = ::read(master_, chunk, sizeof(chunk));
        if (n > 0) {
            output_.append(chunk, static_cast<size_t>(n));
        }
    }
    return true;
}

int Pty::Waiting() const {
    int waiting = 0;
    return ::ioctl(master_, FIONREAD, &waiting) == 0 ? waiting : 0;
}

}  // namespace slotctltest
