# Cross tool chain for the device: 32-bit ARM hard-float Linux (Debian's crossbuild-essential-armhf),
# with the multiarch armhf libraries under /usr/lib/arm-linux-gnueabihf and tests run under qemu.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(ZUN_TRIPLET arm-linux-gnueabihf)

set(CMAKE_C_COMPILER ${ZUN_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ZUN_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ZUN_TRIPLET})

# The device's clock runs past January 2038: 64-bit time_t (and file offsets, which glibc requires with it).
set(CMAKE_C_FLAGS_INIT "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")

# qemu's -L makes the target's loader and libraries (installed multiarch under /) visible to the guest.
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm-static;-L;/")

# Search the multiarch directories for libraries and package configs; never pick up the build host's.
list(APPEND CMAKE_LIBRARY_PATH /usr/lib/${ZUN_TRIPLET} /lib/${ZUN_TRIPLET})
list(APPEND CMAKE_PREFIX_PATH /usr/lib/${ZUN_TRIPLET}/cmake)
list(APPEND CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu
  /usr/lib/x86_64-linux-gnu/cmake)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${ZUN_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Host tools (protoc and the like) come from the build machine.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
