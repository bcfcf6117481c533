// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"

#include <shared/FileHelpers.h>
#include <shared/SingletonMutex.h>
#include <shared/SizedArray.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>

namespace {

TEST(SingletonMutex, UniqueOnlyWhileAloneUnderItsName) {
    shared::SingletonMutex first("SingletonMutexTest.a");
    EXPECT_TRUE(first.IsUnique());
    {
        shared::SingletonMutex second("SingletonMutexTest.a");
        shared::SingletonMutex other("SingletonMutexTest.b");
        EXPECT_FALSE(first.IsUnique());
        EXPECT_FALSE(second.IsUnique());
        EXPECT_TRUE(other.IsUnique());
    }
    EXPECT_TRUE(first.IsUnique());
}

// A forked child starts with no holders: the parent's objects do not count in it (dropping its
// copies changes nothing), and another thread of the parent never leaves the registry locked.
TEST(SingletonMutex, AForkedChildCountsOnlyItsOwnAndNeverWaitsForTheRegistry) {
    SKIP_FORK_AMID_THREADS_UNDER_ASAN();
    std::unique_ptr<shared::SingletonMutex> parents(
        new shared::SingletonMutex("SingletonMutexTest.fork"));
    const testsupport::ForkRounds rounds = testsupport::ForkWhileAnotherThreadRuns(
        [] {
            shared::SingletonMutex other("SingletonMutexTest.churn");
            other.IsUnique();
        },
        [&] {
            shared::SingletonMutex mine("SingletonMutexTest.fork");
            const bool alone = mine.IsUnique() && !parents->IsUnique();
            parents.reset();
            return alone && mine.IsUnique() ? 0 : 2;
        });
    EXPECT_EQ(0, rounds.hung) << "a child found the registry locked for good";
    EXPECT_EQ(0, rounds.wrong) << "the parent's holder counted in children";
    EXPECT_TRUE(parents->IsUnique());
}

TEST(SizedArray, CopiesShareTheBytesAndTheSizeOnlyShrinks) {
    shared::SizedArray empty;
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(nullptr, empty.data());
    EXPECT_EQ(nullptr, shared::SizedArray(0).data());

    std::unique_ptr<shared::SizedArray> original(new shared::SizedArray(4));
    shared::SizedArray copy = *original;
    EXPECT_EQ(original->data(), copy.data());
    original->data()[0] = 'x';
    original.reset();  // the copy keeps the bytes alive
    EXPECT_EQ('x', copy.data()[0]);

    copy.setSize(2);
    EXPECT_EQ(2u, copy.size());
    EXPECT_THROW(copy.setSize(3), std::length_error);
    copy.data()[1] = 'y';
    EXPECT_EQ("xy", shared::FormatNothing(copy));
}

}  // namespace
