// SPDX-License-Identifier: Apache-2.0
#pragma once
// Checks for the body of a child process, where gtest's assertions do not reach the parent: a
// failed check prints what failed and ends the child at once with its own exit code, which the
// parent sees in ChildResult::Describe().

#include "ChildProcess.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <chrono>
#include <functional>
#include <string>

namespace testsupport {

// Runs `body` in a child under a watchdog: success when it returns, that is when every Require
// in it held. For EXPECT_TRUE / ASSERT_TRUE.
inline ::testing::AssertionResult RunsInChild(
    const std::function<void()>& body,
    std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    const ChildResult result = RunInChild(
        [&] {
            body();
            return 0;
        },
        timeout);
    if (result.Ok()) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << result.Describe();
}

inline void Require(bool ok, int code, const std::string& what) {
    if (!ok) {
        Failed(code, what);
        ::_exit(code);
    }
}

// Requires exactly one `level` line `line` in `log`; a failure lists the lines it got.
inline void RequireOneLine(const LogCapture& log, const std::string& level, const std::string& line,
                           int code) {
    if (log.Count(level, line) != 1) {
        std::string seen;
        for (const std::string& m : log.Messages(level)) {
            seen += "\n  " + m;
        }
        Require(false, code, "expected the " + level + " line\n  " + line + "\ngot" + seen);
    }
}

// Requires exactly one `level` line that contains `text`.
inline void RequireOneContaining(const LogCapture& log, const std::string& level,
                                 const std::string& text, int code) {
    size_t n = 0;
    for (const std::string& m : log.Messages(level)) {
        n += m.find(text) != std::string::npos ? 1 : 0;
    }
    Require(n == 1, code, std::to_string(n) + " " + level + " lines with '" + text + "'");
}

}  // namespace testsupport
