// SPDX-License-Identifier: Apache-2.0
#include "ShmHygiene.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    testsupport::InstallTestEnvironment();
    return RUN_ALL_TESTS();
}
