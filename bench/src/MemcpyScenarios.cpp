// SPDX-License-Identifier: Apache-2.0
// How fast does this machine copy, the bound of every copy a slot makes?
#include "ScenarioHarness.h"
#include "SlotAdapters.h"

#include <Slot/SlotFactory.h>

#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <thread>

namespace bench {

std::vector<MemcpyResult> MeasureMemcpy(const Plan& plan) {
    std::vector<MemcpyResult> results;
    const size_t workingSet = 64ull << 20;
    std::vector<char> bigSrc(workingSet / 2, 1), bigDst(workingSet / 2, 2);
    // Warm-up: the first copies after an idle spell run before the core has reached its clock
    // speed and would make the first size look slow.
    {
        const std::uint64_t until = NowNs() + 100000000ull;
        while (NowNs() < until) {
            std::memcpy(bigDst.data(), bigSrc.data(), 1 << 20);
            asm volatile("" : : "r"(bigDst.data()) : "memory");
        }
    }
    for (size_t size : plan.AllSizes()) {
        MemcpyResult m;
        m.size = size;
        std::vector<char> src(size, 3);
        // `span` bytes of source and of destination are walked block by block; a span of one
        // block keeps both in cache.
        auto run = [&](size_t span) {
            span = std::max(size, std::min(span, bigSrc.size()) / size * size);
            double best = 0;
            for (int trial = 0; trial < 5; ++trial) {
                size_t copies = 0;
                size_t offset = 0;
                const std::uint64_t t0 = NowNs();
                std::uint64_t t1 = t0;
                const std::uint64_t budget =
                    static_cast<std::uint64_t>(plan.memcpySeconds * 1e9 / 15);
                while (t1 - t0 < budget) {
                    for (int k = 0; k < 64; ++k) {
                        char* d = bigDst.data() + offset;
                        const char* s = bigSrc.data() + offset;
                        std::memcpy(d, s, size);
                        // Keeps the copy from being optimised away.
                        asm volatile("" : : "r"(d) : "memory");
                        offset += size;
                        if (offset + size > span) {
                            offset = 0;
                        }
                    }
                    copies += 64;
                    t1 = NowNs();
                }
                best = std::max(best, static_cast<double>(copies) * static_cast<double>(size) /
                                          static_cast<double>(t1 - t0));
            }
            return best;  // bytes per ns = GB/s
        };
        m.hotGBps = run(size);
        m.queueGBps = run(plan.depth * size);
        m.coldGBps = run(workingSet / 2);
        // The reader's check reads each block once.
        {
            std::uint64_t sink = 0;
            size_t checks = 0;
            const std::uint64_t t0 = NowNs();
            std::uint64_t t1 = t0;
            while (t1 - t0 < static_cast<std::uint64_t>(plan.memcpySeconds * 1e9 / 5)) {
                for (int k = 0; k < 64; ++k) {
                    sink += PayloadChecksum(src.data(), size);
                    asm volatile("" : : "r"(sink) : "memory");
                }
                checks += 64;
                t1 = NowNs();
            }
            m.checksumGBps = static_cast<double>(checks) * static_cast<double>(size) /
                             static_cast<double>(t1 - t0);
        }
        results.push_back(m);
    }
    return results;
}

}  // namespace bench
