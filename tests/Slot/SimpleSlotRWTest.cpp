// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <Slot/SimpleSlotRW.h>

#include <gtest/gtest.h>

namespace {

using testsupport::LogCapture;
using testsupport::RunInChild;
using testsupport::ScopedSlotName;

TEST(SimpleSlotRW, WriteInOneProcessReadInAnother) {
    ScopedSlotName name("rw");
    const std::string value("zero\0inside\0", 12);
    const testsupport::ChildResult writer = RunInChild([&] {
        SimpleSlotRW(name).Write(value);
        return 0;
    });
    ASSERT_TRUE(writer.Ok()) << writer.Describe();
    EXPECT_EQ(value, SimpleSlotRW(name).Read());
    EXPECT_EQ("", SimpleSlotRW(name).Read()) << "the block was taken and reopening clears the copy";
}

TEST(SimpleSlotRW, UnwrittenReadsEmptyLargestValueRoundTripsAndLongerIsRefused) {
    ScopedSlotName name("rw");
    std::string largest(65536, '\0');
    for (size_t i = 0; i < largest.size(); ++i) {
        largest[i] = static_cast<char>(i * 7);
    }
    SimpleSlotRW rw(name);
    EXPECT_EQ("", rw.Read());
    rw.Write(largest);
    EXPECT_EQ(largest, rw.Read());

    LogCapture log("Slot", log4cxx::Level::getError());
    rw.Write(std::string(65537, 'x'));
    EXPECT_EQ(1u, log.Count("ERROR", "Unable to write to '" + name.str() +
                                         "': data size 65537 > max data size 65536"));
    EXPECT_EQ("", rw.Read()) << "a refused value stores nothing";

    rw.Write("first");
    rw.Write(std::string(70000, 'y'));
    EXPECT_EQ("first", rw.Read()) << "a refused value leaves the waiting one in place";
}

}  // namespace
