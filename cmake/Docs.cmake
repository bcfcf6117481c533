# SPDX-License-Identifier: Apache-2.0
# `cmake --build build --target docs`: the API documentation of the installed headers, made by
# Doxygen (Debian package doxygen) into <build>/docs/html. Fails on any Doxygen warning.
# SLOT_BUILD_DOCS (cmake/Options.cmake): AUTO makes the target when Doxygen is found, looked for
# again at every configure; ON requires it; OFF makes no docs target.
if(SLOT_BUILD_DOCS STREQUAL "OFF")
    return()
endif()
find_package(Doxygen QUIET)
list(JOIN SLOT_PUBLIC_HEADER_FILES " " SLOT_DOXYGEN_HEADERS)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
if(DOXYGEN_FOUND)
    slot_optional_found(SLOT_BUILD_DOCS)
    add_custom_target(docs
        COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile
        WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
        COMMENT "API documentation in ${PROJECT_BINARY_DIR}/docs/html/index.html"
        VERBATIM)
else()
    slot_optional_missing(SLOT_BUILD_DOCS "doxygen not found (apt-get install doxygen)")
    # The target says what to do; when Doxygen was installed after this configure, configuring
    # again is what makes the real target.
    add_custom_target(docs
        COMMAND ${CMAKE_COMMAND} -DBUILD_DIR=${PROJECT_BINARY_DIR}
                -P ${PROJECT_SOURCE_DIR}/cmake/DocsMissing.cmake
        VERBATIM)
endif()
