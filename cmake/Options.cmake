# SPDX-License-Identifier: Apache-2.0
# Every build switch of the project, in one place.
option(SLOT_BUILD_TESTS "Build the GoogleTest suites" ON)
option(SLOT_BUILD_TOOLS "Build slotctl" ON)
option(SLOT_BUILD_EXAMPLES "Build the example programs" ON)
option(SLOT_BUILD_BENCHMARKS "Build the benchmark programs" OFF)
option(SLOT_WERROR "Treat warnings as errors" ON)
option(SLOT_SANITIZE_ADDRESS "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
option(SLOT_SANITIZE_THREAD "Build with ThreadSanitizer" OFF)

if(SLOT_SANITIZE_ADDRESS AND SLOT_SANITIZE_THREAD)
    message(FATAL_ERROR "SLOT_SANITIZE_ADDRESS and SLOT_SANITIZE_THREAD cannot be combined")
endif()
