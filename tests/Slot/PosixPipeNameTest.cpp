// SPDX-License-Identifier: Apache-2.0
#include "ShmHygiene.h"

#include <FileUtils/NamedPipeCreator.h>
#include <Slot/AbortSlotCreationException.h>
#include <Slot/SlotFactory.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

// A posix-pipe name that does not stay in the pipe folder makes neither a reader nor a writer,
// and no FIFO anywhere.
TEST(SlotFactory, PosixPipeNamesThatLeaveThePipeFolderAreRefused) {
    const std::string outside = testsupport::UniqueName("outside");
    const std::string names[] = {"../" + outside, outside + "/b", "", ".", ".."};
    for (const std::string& name : names) {
        const SimpleSlotCfg cfg(name, "posix-pipe", boost::posix_time::milliseconds(10), 4);
        const std::string path = FileUtils::NamedPipeCreator::ConstructPipeFilename(name);
        for (int op = 0; op < 2; ++op) {
            try {
                if (op == 0) {
                    SlotFactory::CreateSlotReader(&cfg);
                } else {
                    SlotFactory::CreateSlotWriter(&cfg);
                }
                ADD_FAILURE() << "'" << name << "' was accepted";
            } catch (const AbortSlotCreationException& e) {
                EXPECT_EQ("Failed to create named pipe " + path, std::string(e.what()));
            }
        }
        struct stat st;
        EXPECT_NE(0, ::lstat(path.c_str(), &st)) << path << " was created";
    }
}

}  // namespace
