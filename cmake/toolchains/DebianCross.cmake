# Shared part of the cross toolchains: Debian's cross compilers for OLM_CROSS_TRIPLE, their own
# target root /usr/<triple> (C library, libstdc++), and a second root with the target libraries
# Debian ships no cross package for (libfuse 2, libunwind), unpacked by scripts/setup-cross.sh. Programs built
# for the target run through user-mode emulation (OLM_CROSS_EMULATOR) wherever CMake or CTest runs
# them: GoogleTest's test discovery at build time, and ctest.
#
# Cache settings:
#   OLM_CROSS_SYSROOT  the second root; default <build dir>/sysroot, where setup-cross.sh puts it.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${OLM_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${OLM_CROSS_TRIPLE}-g++)

# The toolchain file is read again for every try_compile project, whose binary directory is a
# scratch directory: hand the root chosen by the real project on to them.
if(NOT OLM_CROSS_SYSROOT)
  set(OLM_CROSS_SYSROOT "${CMAKE_BINARY_DIR}/sysroot" CACHE PATH "Root of the target libraries fetched by scripts/setup-cross.sh")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES OLM_CROSS_SYSROOT)

set(OLM_CROSS_TOOLCHAIN_ROOT /usr/${OLM_CROSS_TRIPLE})
set(OLM_CROSS_LIBRARY_DIRS ${OLM_CROSS_SYSROOT}/lib/${OLM_CROSS_TRIPLE} ${OLM_CROSS_SYSROOT}/usr/lib/${OLM_CROSS_TRIPLE})

# Not CMAKE_SYSROOT: that would hide the compiler's own root and its C library. Headers, libraries
# and packages come only from the target roots, never from the build machine's /usr. Prefixes given
# in CMAKE_PREFIX_PATH (a runtime installed for the target) are target roots too; otherwise they
# would be searched only below the other roots.
list(APPEND CMAKE_FIND_ROOT_PATH ${OLM_CROSS_TOOLCHAIN_ROOT} ${OLM_CROSS_SYSROOT} ${CMAKE_PREFIX_PATH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The unpacked libraries are not where the linker looks by itself, neither for their own
# dependencies (-rpath-link) nor for pkg-config's answers.
list(JOIN OLM_CROSS_LIBRARY_DIRS ":" olm_cross_library_path)
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-Wl,-rpath-link,${olm_cross_library_path}")
endforeach()
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${OLM_CROSS_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${OLM_CROSS_SYSROOT}/usr/lib/${OLM_CROSS_TRIPLE}/pkgconfig:${OLM_CROSS_SYSROOT}/usr/share/pkgconfig")

# The emulator takes the target's dynamic loader and C library from the toolchain root (-L) and
# the unpacked libraries from LD_LIBRARY_PATH, which child processes of the program inherit.
find_program(OLM_CROSS_EMULATOR_PROGRAM ${OLM_CROSS_EMULATOR})
if(OLM_CROSS_EMULATOR_PROGRAM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${OLM_CROSS_EMULATOR_PROGRAM} -L ${OLM_CROSS_TOOLCHAIN_ROOT}
      -E LD_LIBRARY_PATH=${olm_cross_library_path})
endif()
