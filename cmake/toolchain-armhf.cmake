# Cross build for 32-bit ARM Linux, hard-float (the device's processor), with
# Debian's arm-linux-gnueabihf toolchain. The C library and libstdc++ come
# from the toolchain's own root (/usr/arm-linux-gnueabihf); SQLCipher, its
# libcrypto and GoogleTest come from the sysroot that
# scripts/make-armhf-sysroot.sh unpacks (default build/sysroot-armhf).
#
# Test programs run under qemu-arm (Debian's qemu-user) through
# CMAKE_CROSSCOMPILING_EMULATOR, so `ctest` in the build tree runs the whole
# suite on the target's instruction set.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(IPC_DB_ARMHF_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${IPC_DB_ARMHF_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${IPC_DB_ARMHF_TRIPLE}-g++)

if(NOT IPC_DB_ARMHF_SYSROOT)
  get_filename_component(IPC_DB_ARMHF_SYSROOT
                         "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf" ABSOLUTE)
endif()
set(IPC_DB_ARMHF_SYSROOT "${IPC_DB_ARMHF_SYSROOT}" CACHE PATH
    "Folder holding the unpacked armhf packages (scripts/make-armhf-sysroot.sh)")
# try_compile projects read the toolchain file again; hand them the folder.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES IPC_DB_ARMHF_SYSROOT)

if(NOT EXISTS "${IPC_DB_ARMHF_SYSROOT}/usr/include/sqlcipher/sqlite3.h")
  message(FATAL_ERROR
    "No armhf sysroot in ${IPC_DB_ARMHF_SYSROOT}. Make it first with\n"
    "  bash scripts/make-armhf-sysroot.sh ${IPC_DB_ARMHF_SYSROOT}")
endif()

set(IPC_DB_ARMHF_TOOLCHAIN_ROOT /usr/${IPC_DB_ARMHF_TRIPLE})
set(IPC_DB_ARMHF_LIBDIR ${IPC_DB_ARMHF_SYSROOT}/usr/lib/${IPC_DB_ARMHF_TRIPLE})

# An engine of the device's own (a root folder holding usr/include/sqlcipher
# and usr/lib/libsqlcipher.so, as scripts/build-engine.py armhf installs the
# pinned SQLCipher 4) is searched before the sysroot's Debian SQLCipher 3.
set(IPC_DB_ARMHF_ENGINE_ROOT "" CACHE PATH
    "Root folder of the armhf SQLCipher to build against; empty: the sysroot's")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES IPC_DB_ARMHF_ENGINE_ROOT)
set(IPC_DB_ARMHF_ENGINE_LIBDIR "")
if(IPC_DB_ARMHF_ENGINE_ROOT)
  if(NOT EXISTS "${IPC_DB_ARMHF_ENGINE_ROOT}/usr/include/sqlcipher/sqlite3.h")
    message(FATAL_ERROR
      "No armhf SQLCipher in ${IPC_DB_ARMHF_ENGINE_ROOT}. Build it first with\n"
      "  python3 scripts/build-engine.py armhf")
  endif()
  set(IPC_DB_ARMHF_ENGINE_LIBDIR ${IPC_DB_ARMHF_ENGINE_ROOT}/usr/lib)
endif()

# Headers and libraries only from the target roots; programs from the host.
set(CMAKE_FIND_ROOT_PATH ${IPC_DB_ARMHF_ENGINE_ROOT} ${IPC_DB_ARMHF_SYSROOT}
    ${IPC_DB_ARMHF_TOOLCHAIN_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# libsqlcipher.so needs libcrypto.so.3, which only the sysroot has: let the
# linker resolve it there when linking programs and shared libraries.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${IPC_DB_ARMHF_LIBDIR}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${IPC_DB_ARMHF_LIBDIR}")
set(IPC_DB_ARMHF_RUN_PATH ${IPC_DB_ARMHF_LIBDIR})
if(IPC_DB_ARMHF_ENGINE_LIBDIR)
  set(IPC_DB_ARMHF_RUN_PATH ${IPC_DB_ARMHF_ENGINE_LIBDIR}:${IPC_DB_ARMHF_LIBDIR})
endif()

# qemu-arm finds the ARM dynamic loader and C library under -L; the sysroot's
# libraries reach the emulated program through LD_LIBRARY_PATH (set with -E
# for the guest only, so the host's qemu itself is not affected).
find_program(IPC_DB_QEMU_ARM qemu-arm)
if(IPC_DB_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR
      ${IPC_DB_QEMU_ARM} -L ${IPC_DB_ARMHF_TOOLCHAIN_ROOT}
      -E LD_LIBRARY_PATH=${IPC_DB_ARMHF_RUN_PATH})
endif()
