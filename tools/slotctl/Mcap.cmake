# SPDX-License-Identifier: Apache-2.0
# Included by tools/slotctl and by fuzz/ (whose build has no tools).
# The MCAP recordings of record, replay, read and info; also used by the tests and the bench.
add_library(slot_mcap STATIC
    ${CMAKE_CURRENT_LIST_DIR}/Crc32.cpp
    ${CMAKE_CURRENT_LIST_DIR}/Mcap.cpp
)
target_include_directories(slot_mcap PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(slot_mcap PRIVATE slot_build_flags)
if(NOT SLOT_BUILD_ZSTD STREQUAL "OFF")
    find_path(SLOT_ZSTD_INCLUDE zstd.h)
    find_library(SLOT_ZSTD_LIBRARY zstd)
    if(CMAKE_TOOLCHAIN_FILE)
        # The i386 sysroot holds what the libraries need, not libzstd: a host libzstd found
        # here would be the wrong architecture.
        slot_optional_missing(SLOT_BUILD_ZSTD "not for a cross or 32-bit toolchain")
    elseif(SLOT_ZSTD_INCLUDE AND SLOT_ZSTD_LIBRARY)
        slot_optional_found(SLOT_BUILD_ZSTD)
        target_include_directories(slot_mcap PRIVATE ${SLOT_ZSTD_INCLUDE})
        target_link_libraries(slot_mcap PRIVATE ${SLOT_ZSTD_LIBRARY})
        target_compile_definitions(slot_mcap PRIVATE SLOT_WITH_ZSTD)
    else()
        slot_optional_missing(SLOT_BUILD_ZSTD "libzstd not found (apt-get install libzstd-dev)")
    endif()
endif()
