// SPDX-License-Identifier: Apache-2.0
#pragma once

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

}  // namespace slotctl
