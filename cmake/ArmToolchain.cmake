# 32-bit Arm (Armv7-A, hard float): clang and lld against Debian's armhf packages, unpacked by
# scripts/arm-sysroot; what is built runs under qemu-user. See docs/android.md.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/arm-sysroot/root ABSOLUTE)
if(NOT EXISTS ${CMAKE_SYSROOT})
    message(FATAL_ERROR "there is no ${CMAKE_SYSROOT}; run scripts/arm-sysroot, which makes it")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_CXX_COMPILER_TARGET ${CMAKE_LIBRARY_ARCHITECTURE})
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=vfpv3-d16")
# libutils needs libbacktrace, which needs a library of p7zip's.
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-fuse-ld=lld -Wl,-rpath-link,${CMAKE_SYSROOT}/usr/lib/p7zip")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${CMAKE_SHARED_LINKER_FLAGS_INIT}")

get_filename_component(CMAKE_CROSSCOMPILING_EMULATOR
    ${CMAKE_CURRENT_LIST_DIR}/../scripts/arm-run ABSOLUTE)
