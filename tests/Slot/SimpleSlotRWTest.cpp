// SPDX-License-Identifier: Apache-2.0
#include "ChildRequire.h"
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <Slot/SimpleSlotRW.h>

#include <gtest/gtest.h>

namespace {

using testsupport::LogCapture;
using testsupport::ScopedSlotName;

// A value written in one process is read in another, once; an unwritten slot reads empty, the
// largest value goes through whole, and a longer one is refused and changes nothing.
TEST(SimpleSlotRW, ValuesGoAcrossProcessesOnceUpToTheLargest) {
    ScopedSlotName across("rw"), name("rw");
    const std::string value("zero\0inside\0", 12);
    ASSERT_TRUE(testsupport::RunsInChild([&] { SimpleSlotRW(across).Write(value); }));
    EXPECT_EQ(value, SimpleSlotRW(across).Read());
    EXPECT_EQ("", SimpleSlotRW(across).Read())
        << "the block was taken and reopening clears the copy";

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
