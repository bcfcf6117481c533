# SPDX-License-Identifier: Apache-2.0
# Debian packages, made by `cpack -G DEB` in the build directory (or the `deb` target):
#   libslot1      the four shared libraries (install component "runtime")
#   libslot-dev   headers, the CMake package and slot.pc ("dev"); needs libslot1 and the -dev
#                 packages of Boost and log4cxx that the headers include
#   slotctl       the tool ("tools")
#   slot-gateway  the DDS gateway, its systemd unit and example configuration ("gateway"); only
#                 when the gateway is built. Apart from libslot1, which thus needs no Cyclone
#                 DDS and can stand beside a later libslot2.
# Run-time dependencies come from dpkg-shlibdeps; the packages install under /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME slot)
set(CPACK_PACKAGE_VENDOR "libSlot developers")
set(CPACK_PACKAGE_CONTACT "libSlot developers <libslot@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
if(SLOT_WITH_GATEWAY)
    list(APPEND CPACK_COMPONENTS_ALL gateway)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# slotctl needs libSlot, which is in no installed package while the packages are made.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/src/shared ${PROJECT_BINARY_DIR}/src/FileUtils
    ${PROJECT_BINARY_DIR}/src/IoUtils ${PROJECT_BINARY_DIR}/src/Slot)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://localhost/libslot")

set(slot_exact_runtime "libslot1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libslot1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "${PROJECT_DESCRIPTION}\n libSlot and its companion libraries shared, FileUtils and IoUtils.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libslot-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "${slot_exact_runtime}, libboost-dev (>= 1.74), libboost-thread-dev (>= 1.74), libboost-date-time-dev (>= 1.74), libboost-system-dev (>= 1.74), liblog4cxx-dev (>= 1.0)")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "${PROJECT_DESCRIPTION} (development files)\n Headers, CMake package (find_package(Slot)) and pkg-config file (slot).")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME slotctl)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${slot_exact_runtime}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "Shows and pokes the slots of a machine\n slotctl lists, inspects, writes, reads and removes libSlot slots.")
set(CPACK_DEBIAN_GATEWAY_PACKAGE_NAME slot-gateway)
set(CPACK_DEBIAN_GATEWAY_PACKAGE_SECTION net)
set(CPACK_DEBIAN_GATEWAY_PACKAGE_DEPENDS "${slot_exact_runtime}")
set(CPACK_COMPONENT_GATEWAY_DESCRIPTION
    "Mirrors libSlot slots over Cyclone DDS\n slot-gateway mirrors named slots to DDS topics and topics to slots, so that a slot\n written on one host is read on others. With a systemd unit (not enabled) and an example\n configuration.")

include(CPack)

# `cmake --build build --target deb` makes the packages in <build>/packages.
add_custom_target(deb
    COMMAND ${CMAKE_CPACK_COMMAND} -G DEB --config ${PROJECT_BINARY_DIR}/CPackConfig.cmake
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
    COMMENT "Making the Debian packages in ${PROJECT_BINARY_DIR}/packages"
    VERBATIM)
add_dependencies(deb shared FileUtils IoUtils Slot)
if(TARGET slotctl)
    add_dependencies(deb slotctl)
endif()
if(TARGET slot-gateway)
    add_dependencies(deb slot-gateway)
endif()
