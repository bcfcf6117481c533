# SPDX-License-Identifier: Apache-2.0
# Every build switch of the project, in one place.
option(SLOT_BUILD_TESTS "Build the GoogleTest suites" ON)
option(SLOT_BUILD_TOOLS "Build slotctl" ON)
option(SLOT_BUILD_EXAMPLES "Build the example programs" ON)
option(SLOT_BUILD_BENCHMARKS "Build the benchmark programs" OFF)
option(SLOT_BUILD_FUZZERS "Build the libFuzzer targets in fuzz/ (clang only; implies ASan+UBSan)" OFF)
option(SLOT_WERROR "Treat warnings as errors" ON)
option(SLOT_SANITIZE_ADDRESS "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
option(SLOT_SANITIZE_THREAD "Build with ThreadSanitizer" OFF)
# Test-only SIGKILL points in the libraries (shared/CrashPoint.h); never in a release build.
option(SLOT_CRASH_POINTS "Build the crash points the crash tests use" ${SLOT_BUILD_TESTS})

if(SLOT_BUILD_FUZZERS)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "SLOT_BUILD_FUZZERS needs clang (e.g. -DCMAKE_CXX_COMPILER=clang++-14)")
    endif()
    # The fuzzers look for memory errors and undefined behaviour in the libraries they drive.
    if(NOT SLOT_SANITIZE_THREAD)
        set(SLOT_SANITIZE_ADDRESS ON CACHE BOOL
            "Build with AddressSanitizer and UndefinedBehaviorSanitizer" FORCE)
    endif()
endif()

if(SLOT_SANITIZE_ADDRESS AND SLOT_SANITIZE_THREAD)
    message(FATAL_ERROR "SLOT_SANITIZE_ADDRESS and SLOT_SANITIZE_THREAD cannot be combined")
endif()

# The Python module (python/): built when pybind11 and the Python 3 interpreter below (Debian's,
# whose site-packages layout the module installs into) are found for this target's pointer
# size; quietly left out otherwise (e.g. the i386 build).
option(SLOT_BUILD_PYTHON "Build the Python module when pybind11 and Python 3 are found" ON)
set(SLOT_PYTHON_EXECUTABLE "/usr/bin/python3" CACHE FILEPATH "Python interpreter of the module")

# The DDS gateway (gateway/): built when Cyclone DDS and nlohmann-json are found; quietly left
# out otherwise (e.g. the i386 build, whose sysroot has neither).
find_package(CycloneDDS QUIET)
find_package(nlohmann_json 3 QUIET)
if(CycloneDDS_FOUND AND nlohmann_json_FOUND AND NOT CMAKE_TOOLCHAIN_FILE)
    set(SLOT_GATEWAY_DEFAULT ON)
else()
    set(SLOT_GATEWAY_DEFAULT OFF)
endif()
option(SLOT_BUILD_GATEWAY "Build slot-gateway (needs cyclonedds-dev, cyclonedds-tools, nlohmann-json3-dev)"
       ${SLOT_GATEWAY_DEFAULT})
