# SPDX-License-Identifier: Apache-2.0
# 32-bit x86 build on an x86_64 Debian host. g++-multilib gives the compiler and the 32-bit C and
# C++ runtimes; the i386 Boost, log4cxx and GoogleTest come from the tree that
# `scripts/setup.sh --i386` unpacks (default /opt/slot-i386-sysroot, or $SLOT_I386_SYSROOT), or,
# without that tree, from :i386 packages installed in /usr/lib/i386-linux-gnu.
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)

if(DEFINED ENV{SLOT_I386_SYSROOT})
    set(SLOT_I386_SYSROOT "$ENV{SLOT_I386_SYSROOT}")
else()
    set(SLOT_I386_SYSROOT /opt/slot-i386-sysroot)
endif()

if(EXISTS "${SLOT_I386_SYSROOT}/.slot-i386-ready")
    # Packages (BoostConfig, log4cxxConfig, GTestConfig) are found under <tree>/usr.
    list(APPEND CMAKE_PREFIX_PATH "${SLOT_I386_SYSROOT}/usr")
    set(_slot_i386_libdirs "${SLOT_I386_SYSROOT}/usr/lib/i386-linux-gnu"
                           "${SLOT_I386_SYSROOT}/lib/i386-linux-gnu")
    list(JOIN _slot_i386_libdirs ":" _slot_i386_libpath)
    # The tree is not in the loader's search path: binaries carry it. DT_RPATH (not RUNPATH) so
    # that it also serves the libraries' own dependencies (liblog4cxx -> libapr-1 -> ...), and
    # -rpath-link so that the linker finds those dependencies too.
    foreach(_kind EXE SHARED MODULE)
        string(APPEND CMAKE_${_kind}_LINKER_FLAGS_INIT
               " -Wl,--disable-new-dtags -Wl,-rpath-link,${_slot_i386_libpath}")
    endforeach()
    set(CMAKE_BUILD_RPATH ${_slot_i386_libdirs})
    set(ENV{PKG_CONFIG_SYSROOT_DIR} "${SLOT_I386_SYSROOT}")
    set(ENV{PKG_CONFIG_LIBDIR}
        "${SLOT_I386_SYSROOT}/usr/lib/i386-linux-gnu/pkgconfig:${SLOT_I386_SYSROOT}/usr/share/pkgconfig")
else()
    set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig")
endif()
