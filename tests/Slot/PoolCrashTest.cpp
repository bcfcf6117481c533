// SPDX-License-Identifier: Apache-2.0
// Kill campaign for zero-copy pools: writers, readers and creators of both kinds are killed with
// SIGKILL at random moments while blocks of up to 4 MiB flow. Nobody may stall, no stored block
// may be lost, none may arrive torn, and once everyone is gone every block is free again.
#include "ChildProcess.h"
#include "Eventually.h"
#include "PoolTestSupport.h"

#include <Slot/PoolBlock.h>
#include <Slot/PoolFactory.h>
#include <Slot/PoolSurvey.h>

#include <boost/make_shared.hpp>

#include <signal.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using pooltest::Check;
using pooltest::Fill;
using Slot::PoolFactory;
using Slot::WriteOutcome;
using testsupport::CampaignRole;

constexpr int kQueueWriters = 2;
constexpr int kLatestReaders = 2;
constexpr std::uint64_t kMaxTags = 1 << 20;  // per queue writer
constexpr std::size_t kBigBlock = 4 << 20;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const auto kStallBound = std::chrono::seconds(10);  // sanitizers slow every process down
#else
const auto kStallBound = std::chrono::seconds(2);
#endif

// Shared between the test and its children (an anonymous shared mapping).
struct Ledger {
    std::atomic<int> stop{0};
    std::atomic<std::uint64_t> stored[kQueueWriters];  // tags below this were Stored
    std::atomic<std::uint64_t> seen[kQueueWriters][kMaxTags / 64];
    std::atomic<std::uint64_t> lastQueueSequence{0};
    std::atomic<std::uint64_t> repeats{0};  // queue sequences delivered again
    std::atomic<std::uint64_t> disorder{0};
    std::atomic<std::uint64_t> torn{0};
    std::atomic<std::uint64_t> beats[8];
    std::atomic<std::uint64_t> creatorRound{0};
};

// A block size: mostly small, now and then up to 4 MiB.
std::size_t RandomSize(std::mt19937& random) {
    return random() % 4 == 0 ? 8 + random() % (kBigBlock - 8) : 8 + random() % 65536;
}

// Records a delivered block in the ledger: a queue block by its writer's tag, and its sequence
// against the last one any queue reader delivered; a latest block's sequence against the last
// one this reader delivered.
class Verifier : public shared::ISubscriber {
public:
    Verifier(Ledger& ledger, bool queue, int beat) : ledger_(ledger), queue_(queue), beat_(beat) {}
    void onNotify(const std::string&, const void* data, size_t size) override {
        const std::uint64_t tag = Check(data, size);
        const std::uint64_t sequence = Slot::CurrentBlockSequence();
        ++ledger_.beats[beat_];
        if (!queue_) {
            ledger_.torn += tag == ~0ull;
            ledger_.disorder += sequence <= last_;
            last_ = sequence;
            return;
        }
        if (tag == ~0ull || (tag >> 40) >= kQueueWriters || (tag & 0xffffffffff) >= kMaxTags) {
            ++ledger_.torn;
            return;
        }
        const std::uint64_t last = ledger_.lastQueueSequence.load();
        if (sequence == last) {
            ++ledger_.repeats;  // the block a killed reader was delivering
        } else if (sequence < last) {
            ++ledger_.disorder;
        }
        ledger_.lastQueueSequence = std::max(last, sequence);
        const std::uint64_t n = tag & 0xffffffffff;
        ledger_.seen[tag >> 40][n / 64].fetch_or(1ull << (n % 64));
    }

private:
    Ledger& ledger_;
    const bool queue_;
    const int beat_;
    std::uint64_t last_ = 0;
};

// Publishes blocks until stopped: queue writer `w` tags them with its number and counts those
// stored; the latest writer (`w` < 0) publishes whatever becomes of them.
int WriterLife(Ledger& ledger, const Slot::PoolConfig& config, int w, int beat) {
    std::mt19937 random(static_cast<unsigned>(::getpid()));
    auto writer = PoolFactory::CreatePoolWriter(config);
    std::uint64_t n = w < 0 ? 1 : ledger.stored[w].load();
    while (ledger.stop.load() == 0 && n < kMaxTags) {
        const std::size_t size = RandomSize(random);
        Slot::PoolLoan loan = writer->loan(size);
        ++ledger.beats[beat];
        if (!loan) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));  // full or held: retry
            continue;
        }
        Fill(loan.data(), size, w < 0 ? n : static_cast<std::uint64_t>(w) << 40 | n);
        const WriteOutcome outcome = loan.publish(size);
        if (w < 0) {
            ++n;
        } else if (outcome == WriteOutcome::Stored) {
            ledger.stored[w] = ++n;
        } else if (outcome != WriteOutcome::Refused) {
            return testsupport::Failed(2, Slot::ToString(outcome));
        }
    }
    return 0;
}

int ReaderLife(Ledger& ledger, const Slot::PoolConfig& config, int beat) {
    auto reader = PoolFactory::CreatePoolReader(
        config, boost::make_shared<Verifier>(ledger, config.kind == "queue", beat));
    while (ledger.stop.load() == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return 0;
}

// Creates, uses and removes pools of 16 MiB, one after the other: killed while one is made.
int CreatorLife(Ledger& ledger, const std::string& prefix, int beat) {
    while (ledger.stop.load() == 0) {
        const std::string name = prefix + std::to_string(ledger.creatorRound.load());
        {
            auto writer = PoolFactory::CreatePoolWriter({name, "queue", 1 << 20, 16});
            // Earlier lives killed in this round left their blocks (the pool has no reader): a
            // full pool refuses the loan, and the round goes on to remove it.
            Slot::PoolLoan loan = writer->loan(64);
            if (loan) {
                Fill(loan.data(), 64, 1);
                loan.publish(64);
            } else if (loan.outcome() != WriteOutcome::Refused) {
                return testsupport::Failed(3, Slot::ToString(loan.outcome()));
            }
        }
        PoolFactory::RemovePool(name);
        ++ledger.creatorRound;
        ++ledger.beats[beat];
    }
    return 0;
}

using PoolCampaign = pooltest::PoolTest;

TEST_F(PoolCampaign, KilledWritersReadersAndCreatorsNeverStallLoseTearOrLeakBlocks) {
    const int seconds = testsupport::CampaignSeconds(15);
    auto owner = testsupport::SharedWithChildren<Ledger>();
    Ledger& ledger = *owner;

    pooltest::ScopedPool queuePool("crashqueue");
    pooltest::ScopedPool latestPool("crashlatest");
    const Slot::PoolConfig queue = queuePool.Config("queue", kBigBlock, 8);
    const Slot::PoolConfig latest = latestPool.Config("latest", kBigBlock, 4);
    const std::string creatorPrefix = testsupport::UniqueName("crashnew");

    std::vector<CampaignRole> roles;
    auto add = [&](const std::string& what, std::function<int(int)> life) {
        const int beat = static_cast<int>(roles.size());
        roles.emplace_back(
            what, [life, beat] { return life(beat); },
            [&ledger, beat] { return ledger.beats[beat].load(); });
    };
    for (int w = 0; w < kQueueWriters; ++w) {
        add("queue writer " + std::to_string(w),
            [&, w](int beat) { return WriterLife(ledger, queue, w, beat); });
    }
    add("queue reader", [&](int beat) { return ReaderLife(ledger, queue, beat); });
    add("latest writer", [&](int beat) { return WriterLife(ledger, latest, -1, beat); });
    for (int r = 0; r < kLatestReaders; ++r) {
        add("latest reader " + std::to_string(r),
            [&](int beat) { return ReaderLife(ledger, latest, beat); });
    }
    add("creator", [&](int beat) { return CreatorLife(ledger, creatorPrefix, beat); });
    const std::size_t queueReader = kQueueWriters;
    ASSERT_LE(roles.size(), 8u);

    std::mt19937 random(4711);
    for (CampaignRole& role : roles) {
        role.Start();
    }
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    std::string stall;
    int kills = 0;
    while (Clock::now() < end && stall.empty()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(30 + random() % 120));
        CampaignRole& victim = roles[random() % roles.size()];
        victim.child->Kill(SIGKILL);
        victim.child->Wait();
        ++victim.kills;
        ++kills;
        victim.Start();
        for (CampaignRole& role : roles) {
            testsupport::ChildResult result;
            if (role.child->Poll(&result)) {
                stall = role.what + " ended: " + result.Describe();
            }
            const std::string stalled = role.Stall(kStallBound);
            stall = stalled.empty() ? stall : stalled;
        }
    }
    EXPECT_EQ("", stall);
    ledger.stop = 1;
    for (CampaignRole& role : roles) {
        const testsupport::ChildResult result = role.child->Wait(std::chrono::seconds(30));
        EXPECT_TRUE(result.Ok()) << role.what << ": " << result.Describe();
    }
    for (std::uint64_t round = 0; round <= ledger.creatorRound.load(); ++round) {
        PoolFactory::RemovePool(creatorPrefix + std::to_string(round));
    }
    std::fprintf(stderr,
                 "pool campaign: %d kills in %d s (queue reader %d), queue blocks stored %llu "
                 "and %llu, creator rounds %llu\n",
                 kills, seconds, roles[queueReader].kills,
                 static_cast<unsigned long long>(ledger.stored[0].load()),
                 static_cast<unsigned long long>(ledger.stored[1].load()),
                 static_cast<unsigned long long>(ledger.creatorRound.load()));

    // Everyone is gone: what the dead held returns, then a last reader drains the queue.
    PoolFactory::Recover(queue.name);
    PoolFactory::Recover(latest.name);
    ledger.stop = 0;
    {
        auto drain =
            PoolFactory::CreatePoolReader(queue, boost::make_shared<Verifier>(ledger, true, 0));
        EXPECT_TRUE(testsupport::Eventually(
            [&] { return Slot::SurveyPool(queue.name).waitingBlocks == 0; }));
    }
    EXPECT_EQ(0u, ledger.torn.load()) << "torn blocks";
    EXPECT_EQ(0u, ledger.disorder.load()) << "blocks out of order or delivered twice";
    EXPECT_LE(ledger.repeats.load(), static_cast<std::uint64_t>(roles[queueReader].kills));
    for (int w = 0; w < kQueueWriters; ++w) {
        std::uint64_t lost = 0;
        const std::uint64_t stored = ledger.stored[w].load();
        for (std::uint64_t n = 0; n < stored; ++n) {
            lost += (ledger.seen[w][n / 64].load() >> (n % 64) & 1u) == 0;
        }
        EXPECT_EQ(0u, lost) << "queue writer " << w << " had " << stored << " blocks stored";
        EXPECT_GT(stored, 0u);
    }
    for (const Slot::PoolConfig* config : {&queue, &latest}) {
        const Slot::PoolReport report = Slot::SurveyPool(config->name);
        EXPECT_EQ("healthy", report.state) << report.problem;
        EXPECT_EQ(config->blockCount - (config == &latest ? 1 : 0), report.freeBlocks)
            << config->kind << ": leaked blocks";
        EXPECT_TRUE(report.attached.empty()) << config->kind;
    }
    // Creators killed before renaming their pool left temporaries; the next creation removes them.
    {
        pooltest::ScopedPool last("crashlast");
        PoolFactory::CreatePoolWriter(last.Config("latest", 8, 2));
    }
    std::vector<std::string> temporaries;
    for (const std::string& file : pooltest::PoolFiles(Slot::PoolTemporaryPrefix)) {
        const auto pid = std::atol(file.c_str() + std::strlen(Slot::PoolTemporaryPrefix));
        if (::kill(static_cast<pid_t>(pid), 0) != 0) {
            temporaries.push_back(file);
        }
    }
    EXPECT_TRUE(temporaries.empty()) << temporaries.front();
}

}  // namespace
