// SPDX-License-Identifier: Apache-2.0
#pragma once

// Assertion results for EXPECT_TRUE / ASSERT_TRUE that say what went wrong.
#include "ChildProcess.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <string>

namespace testsupport {

// Success when the child ended through exit code 0; else how it ended.
inline ::testing::AssertionResult EndedWell(const ChildResult& result) {
    if (result.Ok()) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << result.Describe();
}

// Success when `log` holds no WARN and no ERROR line; else those lines.
inline ::testing::AssertionResult NoWarningsOrErrors(const LogCapture& log) {
    std::string seen;
    for (const LogCapture::Event& event : log.Events()) {
        if (event.level == "WARN" || event.level == "ERROR") {
            seen += "\n  " + event.level + " " + event.message;
        }
    }
    if (seen.empty()) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "warnings or errors:" << seen;
}

}  // namespace testsupport
