// SPDX-License-Identifier: Apache-2.0
#include <Slot/Slot.h>

#include <gtest/gtest.h>

namespace {

// The defaults the plain records fill in.
TEST(Contract, ConfigurationRecordsKeepTheirFixedValues) {
    EXPECT_EQ(65536u,
              SimpleSlotCfg("x", "reliable", boost::posix_time::milliseconds(5), 7).GetMaxSize());
    SimpleFileOutputCfg out("/tmp/f", false, false);
    EXPECT_EQ("", out.GetFormat());
    EXPECT_TRUE(out.GetAppendFlag());
    EXPECT_FALSE(out.GetTimestampedFilenameFlag());
    EXPECT_FALSE(out.GetRotateFlag());
    EXPECT_EQ(10485760u, out.GetMaxSize());
    EXPECT_EQ(0u, out.GetMaxFileIndex());
}

TEST(Contract, TypeNamesAndExceptionAreTheSystemsOwn) {
    EXPECT_EQ("reliable", Configuration::Object::Slot::Type::reliableTag);
    EXPECT_EQ("discarding", Configuration::Object::Slot::Type::discardingTag);
    EXPECT_EQ("posix-pipe", Configuration::Object::Slot::Type::posixPipeTag);
    EXPECT_EQ("win-pipe", Configuration::Object::Slot::Type::winPipeTag);
    EXPECT_EQ("max-buffer-length", Configuration::Object::Slot::maxBufferLengthTag);
    EXPECT_EQ("timestamped-filename", Configuration::Object::FileOutput::tstampedFilenameTag);
    try {
        throw AbortSlotCreationException("x");
    } catch (const std::logic_error& e) {
        EXPECT_STREQ("x", e.what());
    }
}

}  // namespace
