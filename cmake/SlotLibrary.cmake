# SPDX-License-Identifier: Apache-2.0
# slot_add_library(NAME SOURCES ... DEPENDS ...): one of the project's shared libraries, with a
# versioned SONAME, the namespaced alias Slot::NAME, src/ as its include root and the project's
# warning and sanitizer flags (not exported to users).
function(slot_add_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS")
    add_library(${name} SHARED ${arg_SOURCES})
    add_library(Slot::${name} ALIAS ${name})
    set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION}
                                             SOVERSION ${PROJECT_VERSION_MAJOR})
    target_include_directories(${name} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${name}
        PUBLIC ${arg_DEPENDS}
        PRIVATE $<BUILD_INTERFACE:slot_build_flags>)
endfunction()
