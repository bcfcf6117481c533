# SPDX-License-Identifier: Apache-2.0
# Optional parts of the build (gateway, Python module, docs, fuzzers, slotctl top's full-screen
# view, zstd-compressed recordings), each switched by a cache entry SLOT_BUILD_<PART> of AUTO,
# ON or OFF:
#   AUTO  built when what it needs is found; looked for again at every configure;
#   ON    built, or the configure fails naming what is missing (and the Debian package);
#   OFF   left out, nothing is looked for.
# The outcome is SLOT_WITH_<PART> (ON/OFF) in the scope that detects the part, and a global
# property read by slot_optional_summary() at the end of the configure.

# slot_optional_part(<var> <default> <doc> <old doc>): declares the cache entry. An entry that
# an older configure cached as a BOOL option (recognised by its old <doc>) held a default
# computed from what was installed then, indistinguishable from a choice: it becomes AUTO.
function(slot_optional_part var default doc olddoc)
    get_property(type CACHE ${var} PROPERTY TYPE)
    get_property(help CACHE ${var} PROPERTY HELPSTRING)
    if(type STREQUAL "BOOL" AND NOT olddoc STREQUAL "" AND help STREQUAL olddoc)
        message(STATUS "${var}: the ${${var}} cached by an older configure is now AUTO "
                       "(detected at every configure; -D${var}=OFF leaves it out)")
        set_property(CACHE ${var} PROPERTY TYPE STRING)
        set_property(CACHE ${var} PROPERTY HELPSTRING "${doc}")
        set_property(CACHE ${var} PROPERTY VALUE AUTO)
    endif()
    set(${var} ${default} CACHE STRING "${doc}")
    set_property(CACHE ${var} PROPERTY STRINGS AUTO ON OFF)
    string(TOUPPER "${${var}}" value)
    if(value MATCHES "^(ON|YES|TRUE|Y|1)$")
        set(value ON)
    elseif(value MATCHES "^(OFF|NO|FALSE|N|0)$")
        set(value OFF)
    elseif(NOT value STREQUAL "AUTO")
        message(FATAL_ERROR "${var} must be AUTO, ON or OFF, not '${${var}}'")
    endif()
    set(${var} ${value} PARENT_SCOPE)
    string(REPLACE "SLOT_BUILD_" "SLOT_WITH_" with ${var})
    set(${with} OFF PARENT_SCOPE)
    set_property(GLOBAL APPEND PROPERTY SLOT_OPTIONAL_PARTS ${var})
    set_property(GLOBAL PROPERTY SLOT_OPTIONAL_${var} "")
    if(value STREQUAL "OFF")
        set_property(GLOBAL PROPERTY SLOT_OPTIONAL_${var} "left out (${var}=OFF)")
    endif()
endfunction()

# slot_optional_found(<var>): the part is built.
macro(slot_optional_found var)
    string(REPLACE "SLOT_BUILD_" "SLOT_WITH_" _slot_with ${var})
    set(${_slot_with} ON)
    set_property(GLOBAL PROPERTY SLOT_OPTIONAL_${var} "built")
endmacro()

# slot_optional_missing(<var> <what is missing, with its package>): left out under AUTO, a
# configure error under ON.
macro(slot_optional_missing var reason)
    if("${${var}}" STREQUAL "ON")
        message(FATAL_ERROR "${var}=ON, but ${reason}")
    endif()
    string(REPLACE "SLOT_BUILD_" "SLOT_WITH_" _slot_with ${var})
    set(${_slot_with} OFF)
    set_property(GLOBAL PROPERTY SLOT_OPTIONAL_${var} "missing: ${reason}")
endmacro()

# The summary at the end of the configure: one line per part.
function(slot_optional_summary)
    get_property(parts GLOBAL PROPERTY SLOT_OPTIONAL_PARTS)
    list(REMOVE_DUPLICATES parts)
    message(STATUS "Optional parts (AUTO ones are looked for again at every configure):")
    foreach(var ${parts})
        get_property(outcome GLOBAL PROPERTY SLOT_OPTIONAL_${var})
        if(outcome STREQUAL "")
            set(outcome "not configured")
        endif()
        string(REPLACE "SLOT_BUILD_" "" part ${var})
        string(TOLOWER "${part}" part)
        message(STATUS "  ${part} [${var}=${${var}}]: ${outcome}")
    endforeach()
endfunction()
