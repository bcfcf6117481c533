// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/SlotText.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace slotctl {

// Exit statuses of every command.
enum ExitStatus {
    ExitOk = 0,
    ExitFailure = 1,       // the command ran and failed (not a slot, permission, refused data...)
    ExitUsage = 2,         // bad command line: unknown option, invalid name or type, bad number
    ExitTimedOut = 124,    // read/write gave up waiting (--timeout), as coreutils timeout(1)
    ExitInterrupted = 130  // stopped by SIGINT/SIGTERM/SIGHUP
};

// An error that ends the command: main prints "slotctl: <what>" as one line and exits with
// `status`.
class CommandError : public std::runtime_error {
public:
    CommandError(int status, const std::string& what) : std::runtime_error(what), status_(status) {}
    int Status() const { return status_; }

private:
    int status_;
};

inline CommandError UsageError(const std::string& what) {
    return CommandError(ExitUsage, what);
}

// Options and operands of one command. Long options take their value as "--opt VALUE" or
// "--opt=VALUE"; "--" ends the options; a lone "-" is an operand.
class Arguments {
public:
    // `valued` lists the long options that take a value, `flags` those that do not (both
    // without the leading "--"). Anything else starting with '-' is a usage error.
    Arguments(const std::string& command, const std::vector<std::string>& args,
              const std::set<std::string>& valued, const std::set<std::string>& flags);

    bool Has(const std::string& option) const;
    // The option's last value, or `fallback` when absent.
    std::string Get(const std::string& option, const std::string& fallback = "") const;
    // Every value the option was given, in order (for options that may be repeated).
    std::vector<std::string> GetAll(const std::string& option) const;
    // The option's value as a number in [min, max]; a usage error names the option otherwise.
    std::uint64_t GetNumber(const std::string& option, std::uint64_t fallback, std::uint64_t min,
                            std::uint64_t max) const;
    double GetSeconds(const std::string& option, double fallback, double min, double max) const;

    const std::string& Command() const { return command_; }
    const std::vector<std::string>& Operands() const { return operands_; }
    // Usage error unless the operand count is within [min, max].
    void ExpectOperands(size_t min, size_t max, const std::string& what) const;

private:
    std::string command_;
    std::map<std::string, std::string> values_;
    std::map<std::string, std::vector<std::string>> allValues_;
    std::set<std::string> flags_;
    std::vector<std::string> operands_;
};

// Parses a decimal number in [min, max]; throws UsageError mentioning `what` otherwise.
std::uint64_t ParseNumber(const std::string& text, const std::string& what, std::uint64_t min,
                          std::uint64_t max);

// Checks a slot name: not empty, not "." or "..", no '/', and short enough that "queue_<name>"
// is still a valid shared-memory name. Throws UsageError with the reason.
void CheckSlotName(const std::string& name);

// Slot type check through the library; throws UsageError for a type the factory refuses.
void CheckSlotType(const std::string& type);

// `text` safe to print on a terminal (the library's, as in its JSON).
using Slot::Printable;

// The name quoted for messages: 'name', made Printable, cut after 300 bytes.
std::string Quote(const std::string& name);

bool StartsWith(const std::string& text, const std::string& prefix);
bool EndsWith(const std::string& text, const std::string& suffix);
// The parts separated by ", ".
std::string Join(const std::vector<std::string>& parts);
// Where each character of `text` begins (a byte that starts no valid UTF-8 sequence is one
// character). A terminal shows a Printable text one column a character (wide scripts aside).
std::vector<size_t> CharacterStarts(const std::string& text);
// `text` filled with spaces to `width` columns, on the right (Padded) or on the left.
std::string Padded(const std::string& text, size_t width);
std::string RightAligned(const std::string& text, size_t width);

// errno values WriteOut gives when it stopped waiting for standard output to take bytes: a stop
// signal arrived, or its time-out passed.
constexpr int OutputStopped = ECANCELED;
constexpr int OutputTimedOut = ETIMEDOUT;

// Writes all of `bytes` to standard output; false when it is gone (EPIPE) or fails, with the
// reason in errno. A terminal, pipe or socket that takes nothing is waited for until a stop
// signal (OutputStopped; also one taken before, and on any thread) or, with `timeoutMs` >= 0,
// until that many ms passed (OutputTimedOut). Any thread may write.
bool WriteOut(const std::string& bytes, int timeoutMs = -1);

// What a command watches (WaitOrStop's `watched`) while it waits for something to print on
// standard output: Gone once nobody can read that output any more (a pipe whose reader ended, as
// after `| head -1`; a socket or terminal hung up; never a file). The command then ends as after
// a write that failed with EPIPE, without taking what it would not be able to print.
int OutputWatchFd();

// WriteOut for standard error, without a time-out.
bool WriteErr(const std::string& bytes);

// Makes std::cout and std::cerr write through WriteOut and WriteErr, line by line, so that no
// message waits for a stalled output past a stop signal. Once, in main, after
// StopSignals::Block.
void RouteStandardStreams();

// Why standard output failed with `error`, as said on stderr after "slotctl: ": "cannot write
// standard output: <reason>"; empty for a closed pipe (EPIPE) and a stop signal, which end
// quietly.
std::string OutputFailure(int error);

// The status a command ends with once standard output failed with `error`: 130 after a stop
// signal, 124 after a time-out, else 1.
int OutputStatus(int error);

// Writes all of `text` to standard output; throws CommandError (OutputStatus, OutputFailure's
// message) when that fails.
void PrintOut(const std::string& text);

// How a command that prints as it goes ends once standard output failed with `error`:
// OutputStatus, after OutputFailure's line on stderr (none for a closed pipe or a stop).
int OutputFailed(int error);

}  // namespace slotctl
