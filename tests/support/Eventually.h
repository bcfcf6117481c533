// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <thread>

namespace testsupport {

// Polls until `predicate` holds; false when it still does not at the time-out. For states that
// give no signal to wait on (another process's counters, a log line). A costly look (a file read
// whole) polls less often.
template <class Predicate>
bool Eventually(Predicate predicate, std::chrono::milliseconds timeout = std::chrono::seconds(10),
                std::chrono::microseconds every = std::chrono::microseconds(200)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(every);
    }
    return true;
}

}  // namespace testsupport
