# Cross build for the device: 32-bit ARM, hard-float, little-endian
# (arm-linux-gnueabihf). The C library comes with the cross compiler
# (/usr/arm-linux-gnueabihf); cJSON, libuuid and GoogleTest come from the
# unpacked Debian armhf packages made by scripts/armhf-sysroot.sh.
# Test programs run under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KERM_ARMHF_TRIPLE arm-linux-gnueabihf)
set(KERM_ARMHF_LIBC /usr/${KERM_ARMHF_TRIPLE})
if(DEFINED ENV{KERM_ARMHF_SYSROOT})
  set(KERM_ARMHF_SYSROOT $ENV{KERM_ARMHF_SYSROOT})
else()
  get_filename_component(KERM_ARMHF_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot ABSOLUTE)
endif()
if(NOT EXISTS ${KERM_ARMHF_SYSROOT}/usr/lib/${KERM_ARMHF_TRIPLE}/pkgconfig/libcjson.pc)
  message(FATAL_ERROR "armhf sysroot missing at ${KERM_ARMHF_SYSROOT}: run scripts/armhf-sysroot.sh")
endif()

set(CMAKE_C_COMPILER ${KERM_ARMHF_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KERM_ARMHF_TRIPLE}-g++)
# Named explicitly so tools that inspect the target binaries (the ABI export
# check) never pick up the host's.
find_program(CMAKE_NM ${KERM_ARMHF_TRIPLE}-nm REQUIRED)
find_program(CMAKE_AR ${KERM_ARMHF_TRIPLE}-ar REQUIRED)
find_program(CMAKE_RANLIB ${KERM_ARMHF_TRIPLE}-ranlib REQUIRED)
find_program(CMAKE_OBJDUMP ${KERM_ARMHF_TRIPLE}-objdump)
find_program(CMAKE_STRIP ${KERM_ARMHF_TRIPLE}-strip)

# As on the device's own builds: unwind tables in every function. Without
# them ARM EHABI marks non-throwing (noexcept, C) functions "cannot unwind",
# and backtrace() stops at the first such frame.
# -Wno-psabi: silences notes about a GCC 7.1 change in how some C++ types are
# passed, which only matters when mixing with objects from older compilers.
set(CMAKE_C_FLAGS_INIT "-funwind-tables")
set(CMAKE_CXX_FLAGS_INIT "-funwind-tables -Wno-psabi")

set(CMAKE_FIND_ROOT_PATH ${KERM_ARMHF_SYSROOT} ${KERM_ARMHF_LIBC})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE ${KERM_ARMHF_TRIPLE})

# pkg-config answers from the sysroot only, with its paths re-rooted there.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${KERM_ARMHF_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${KERM_ARMHF_SYSROOT}/usr/lib/${KERM_ARMHF_TRIPLE}/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# The linker resolves libkerm_util.so's own dependencies when linking programs.
set(kerm_armhf_libdir ${KERM_ARMHF_SYSROOT}/usr/lib/${KERM_ARMHF_TRIPLE})
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${kerm_armhf_libdir}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${kerm_armhf_libdir}")

# Tests and try_run run the ARM programs through user-mode emulation; the
# guest loader takes its libc from the cross tree and the dependencies from
# the sysroot. KERM_TEST_EMULATOR lets a test tell an emulator limit from a
# fault of the code.
find_program(KERM_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR
  ${KERM_QEMU_ARM} -L ${KERM_ARMHF_LIBC} -E LD_LIBRARY_PATH=${kerm_armhf_libdir}
  -E KERM_TEST_EMULATOR=qemu-arm)
