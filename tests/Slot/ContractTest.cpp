// SPDX-License-Identifier: Apache-2.0
#include <Slot/Slot.h>

#include <gtest/gtest.h>

namespace {

TEST(Contract, ConfigurationRecordsKeepTheirFixedValues) {
    SimpleSlotCfg cfg("x", "reliable", boost::posix_time::milliseconds(5), 7);
    EXPECT_EQ(65536u, cfg.GetMaxSize());
    EXPECT_EQ(7u, cfg.GetMaxBufferLength());
    EXPECT_EQ(boost::posix_time::milliseconds(5), cfg.GetUpdateTime());
    EXPECT_EQ("reliable", cfg.GetSlotType());

    SimpleFileOutputCfg out("/tmp/f", false, false);
    EXPECT_EQ("/tmp/f", out.GetTargetFilenameBase());
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
