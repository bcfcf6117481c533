# SPDX-License-Identifier: Apache-2.0
# The docs target of a build tree configured without Doxygen: says why it cannot run.
find_program(doxygen_now doxygen)
if(doxygen_now)
    message(FATAL_ERROR "docs: doxygen is installed now (${doxygen_now}), but ${BUILD_DIR} was "
                        "configured without it: configure again (cmake ${BUILD_DIR}), then "
                        "build docs again")
endif()
message(FATAL_ERROR "docs: doxygen was not found (apt-get install doxygen)")
