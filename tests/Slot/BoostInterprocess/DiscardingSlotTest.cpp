// SPDX-License-Identifier: Apache-2.0
#include "LockedBlocks.h"
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <Slot/BoostInterprocess/DiscardingSlot.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using boost::interprocess::open_or_create;

// A fresh 32-byte discarding slot, and what the library logs about it.
class DiscardingSlotTest : public ::testing::Test {
protected:
    testsupport::ScopedSlotName name;
    DiscardingSlot slot{open_or_create, name.c_str(), 32};
    testsupport::LogCapture log{"Slot"};
};

// A read changes no byte of the buffer beyond what it returns: none from a fresh slot, only the
// head of a block longer than the buffer.
TEST_F(DiscardingSlotTest, AReadFillsOnlyWhatItReturns) {
    char buffer[8];
    std::memset(buffer, '.', sizeof buffer);
    EXPECT_EQ(0u, slot.ReadData(buffer, sizeof buffer));
    EXPECT_EQ(std::string(8, '.'), std::string(buffer, sizeof buffer));
    EXPECT_EQ(1u, log.Count("DEBUG", "Returned a copy of last data block, queue of '" + name.str() +
                                         "'is empty"));
    slot.WriteData("0123456789", 10);
    ASSERT_EQ(4u, slot.ReadData(buffer, 4));
    EXPECT_EQ("0123....", std::string(buffer, 8));
}

TEST_F(DiscardingSlotTest, ABlockIsReadFromTheQueueThenAgainFromTheOutputBuffer) {
    slot.WriteData("abcdef", 6);
    EXPECT_EQ(1u, log.Count("TRACE", "write timestamp " +
                                         boost::posix_time::to_simple_string(
                                             slot.GetLastWriteTime().time_of_day()) +
                                         " queue size==1"));
    EXPECT_EQ("abcdef", testsupport::ReadDirect(slot));
    EXPECT_EQ(1u, log.Count("DEBUG",
                            "Received a data block from queue of  '" + name.str() + "', size==0"));
    EXPECT_EQ("abcdef", testsupport::ReadDirect(slot));
}

TEST_F(DiscardingSlotTest, ASecondWriteDiscardsTheWaitingBlock) {
    slot.WriteData("first", 5);
    slot.WriteData("second", 6);
    EXPECT_EQ(std::vector<std::string>{"One data block discarded from " + name.str()},
              log.Messages("WARN"));
    EXPECT_EQ(1u, slot.GetBufferLength());
    EXPECT_EQ("second", testsupport::ReadDirect(slot));
}

}  // namespace
