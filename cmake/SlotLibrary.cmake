# SPDX-License-Identifier: Apache-2.0
# slot_add_library(NAME SOURCES ... DEPENDS ...): one of the project's shared libraries, with a
# versioned SONAME, the namespaced alias Slot::NAME, src/ (and the generated headers) as its
# include root, an install RUNPATH of its own folder, so that it finds its sibling libraries
# wherever the tree is installed, the project's warning and sanitizer flags (not exported
# to users) and C++17 and 64-bit file offsets, which the public headers need: exported, so a
# program that asks for an older standard is compiled as C++17.
function(slot_add_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS")
    add_library(${name} SHARED ${arg_SOURCES})
    add_library(Slot::${name} ALIAS ${name})
    set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION}
                                             SOVERSION ${PROJECT_VERSION_MAJOR}
                                             INSTALL_RPATH "${SLOT_LIBRARY_RUNPATH}")
    target_include_directories(${name} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>
        $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_compile_features(${name} PUBLIC cxx_std_17)
    target_compile_definitions(${name} INTERFACE _FILE_OFFSET_BITS=64)
    target_link_libraries(${name}
        PUBLIC ${arg_DEPENDS}
        PRIVATE $<BUILD_INTERFACE:slot_build_flags>)
endfunction()
