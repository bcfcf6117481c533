// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace slotctl {

// How the tool's log4cxx is set up.
struct LogOptions {
    int verbosity = 0;        // 0: WARN and above, 1 (-v): DEBUG, 2 (-vv): TRACE
    std::string configFile;   // --log-config: a properties file, or XML when it ends in ".xml"
    bool console = true;      // default console appender on stderr (unless configFile is given)
    bool errorsOnly = false;  // without -v: ERROR and above instead of WARN and above
};

// Configures log4cxx once per process. Without a configuration file the root logger writes to
// stderr as "slotctl: LEVEL [logger] message". -v/-vv lower the root level after the file is
// read. Throws UsageError when the file cannot be read.
void ConfigureLogging(const LogOptions& options);

// The command-line words that reproduce `options` in a child process.
std::vector<std::string> LogArguments(const LogOptions& options);

namespace tap_detail {
class TapAppender;
}

// One WARN-or-worse event of the library, as it was logged.
struct LogEvent {
    std::string logger;
    std::string level;
    std::string message;
};

// Sees every event at WARN and above that the library logs on "Slot" (the slots) and its
// children "Slot.Writer" (writers, the named-pipe writer included) and "Slot.Reader", while it
// lives. "Slot" and "Slot.Writer" are lowered to WARN if the configuration had silenced them,
// so that nothing goes unseen. `onEvent` runs on the thread that logs (any thread of the
// process); it must be thread-safe.
class WarningTap {
public:
    explicit WarningTap(std::function<void(const LogEvent&)> onEvent);
    ~WarningTap();
    WarningTap(const WarningTap&) = delete;
    WarningTap& operator=(const WarningTap&) = delete;

private:
    std::shared_ptr<tap_detail::TapAppender> appender_;
};

}  // namespace slotctl
