# SPDX-License-Identifier: Apache-2.0
# `cmake --build build --target docs`: the API documentation of the installed headers, made by
# Doxygen (Debian package doxygen) into <build>/docs/html. Fails on any Doxygen warning.
find_package(Doxygen QUIET)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
if(DOXYGEN_FOUND)
    add_custom_target(docs
        COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile
        WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
        COMMENT "API documentation in ${PROJECT_BINARY_DIR}/docs/html/index.html"
        VERBATIM)
else()
    add_custom_target(docs
        COMMAND ${CMAKE_COMMAND} -E echo "docs: doxygen was not found (apt-get install doxygen)"
        COMMAND ${CMAKE_COMMAND} -E false
        VERBATIM)
endif()
