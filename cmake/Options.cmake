# SPDX-License-Identifier: Apache-2.0
# Every build switch of the project, in one place.
option(SLOT_BUILD_TESTS "Build the GoogleTest suites" ON)
option(SLOT_BUILD_TOOLS "Build slotctl" ON)
option(SLOT_BUILD_EXAMPLES "Build the example programs" ON)
option(SLOT_BUILD_BENCHMARKS "Build the benchmark programs" OFF)
option(SLOT_WERROR "Treat warnings as errors" ON)
option(SLOT_SANITIZE_ADDRESS "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
option(SLOT_SANITIZE_THREAD "Build with ThreadSanitizer" OFF)
# Test-only SIGKILL points in the libraries (shared/CrashPoint.h); never in a release build.
option(SLOT_CRASH_POINTS "Build the crash points the crash tests use" ${SLOT_BUILD_TESTS})

if(SLOT_SANITIZE_ADDRESS AND SLOT_SANITIZE_THREAD)
    message(FATAL_ERROR "SLOT_SANITIZE_ADDRESS and SLOT_SANITIZE_THREAD cannot be combined")
endif()

# Optional parts: AUTO (the default, fuzzers excepted) builds a part when what it needs is found,
# looked for again at every configure, so installing a package and configuring again is
# enough; ON builds it or fails naming what is missing; OFF leaves it out. The end of the
# configure prints what will be built and what is missing (slot_optional_summary).
include(${CMAKE_CURRENT_LIST_DIR}/OptionalParts.cmake)
slot_optional_part(SLOT_BUILD_GATEWAY AUTO
    "slot-gateway: AUTO, ON or OFF (needs cyclonedds-dev, cyclonedds-tools, nlohmann-json3-dev)"
    "Build slot-gateway (needs cyclonedds-dev, cyclonedds-tools, nlohmann-json3-dev)")
slot_optional_part(SLOT_BUILD_PYTHON AUTO
    "Python module libslot: AUTO, ON or OFF (needs pybind11-dev, python3-dev)"
    "Build the Python module when pybind11 and Python 3 are found")
slot_optional_part(SLOT_BUILD_DOCS AUTO "API documentation target docs: AUTO, ON or OFF (needs doxygen)"
    "")
# Fuzzers force ASan+UBSan on the whole build, so they are never switched on by what happens
# to be installed: OFF unless asked for (ON, or AUTO: built when the compiler is clang).
slot_optional_part(SLOT_BUILD_FUZZERS OFF
    "libFuzzer targets in fuzz/: OFF, ON or AUTO (clang only; implies ASan+UBSan)" "")
# slotctl top's full-screen view (ncurses); top --once and --json are built without it.
slot_optional_part(SLOT_BUILD_TOP_SCREEN AUTO
    "slotctl top's full-screen view: AUTO, ON or OFF (needs libncurses-dev)" "")
# zstd-compressed chunks in slotctl's recordings (libzstd-dev). Detected in tools/slotctl; not
# in the i386 sysroot, whose build then records uncompressed only.
slot_optional_part(SLOT_BUILD_ZSTD AUTO
    "zstd compression of slotctl recordings: AUTO, ON or OFF (needs libzstd-dev)" "")
set(SLOT_PYTHON_EXECUTABLE "/usr/bin/python3" CACHE FILEPATH "Python interpreter of the module")

# Fuzzers: clang with libFuzzer.
if(NOT SLOT_BUILD_FUZZERS STREQUAL "OFF")
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        slot_optional_found(SLOT_BUILD_FUZZERS)
    else()
        slot_optional_missing(SLOT_BUILD_FUZZERS
            "needs clang (apt-get install clang-14; -DCMAKE_CXX_COMPILER=clang++-14)")
    endif()
endif()
if(SLOT_WITH_FUZZERS)
    # The fuzzers look for memory errors and undefined behaviour in the libraries they drive.
    if(NOT SLOT_SANITIZE_THREAD)
        set(SLOT_SANITIZE_ADDRESS ON CACHE BOOL
            "Build with AddressSanitizer and UndefinedBehaviorSanitizer" FORCE)
    endif()
endif()

# The DDS gateway (gateway/): Cyclone DDS and nlohmann-json, not in the i386 build (its sysroot
# has neither).
if(NOT SLOT_BUILD_GATEWAY STREQUAL "OFF")
    find_package(CycloneDDS QUIET)
    find_package(nlohmann_json 3 QUIET)
    if(CycloneDDS_FOUND AND NOT TARGET CycloneDDS::idlc)
        find_program(SLOT_IDLC_EXECUTABLE idlc)  # what idlc_generate runs (cyclonedds-tools)
    endif()
    if(CMAKE_TOOLCHAIN_FILE)
        slot_optional_missing(SLOT_BUILD_GATEWAY "not for a cross or 32-bit toolchain")
    elseif(NOT CycloneDDS_FOUND)
        slot_optional_missing(SLOT_BUILD_GATEWAY
            "Cyclone DDS not found (apt-get install cyclonedds-dev cyclonedds-tools)")
    elseif(NOT TARGET CycloneDDS::idlc AND NOT SLOT_IDLC_EXECUTABLE)
        slot_optional_missing(SLOT_BUILD_GATEWAY
            "Cyclone DDS's IDL compiler idlc not found (apt-get install cyclonedds-tools)")
    elseif(NOT nlohmann_json_FOUND)
        slot_optional_missing(SLOT_BUILD_GATEWAY
            "nlohmann-json not found (apt-get install nlohmann-json3-dev)")
    else()
        slot_optional_found(SLOT_BUILD_GATEWAY)
    endif()
endif()
# The Python module and the docs are detected where they are made: python/CMakeLists.txt and
# cmake/Docs.cmake.
