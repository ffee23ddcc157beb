# Cross-build for another architecture of Debian, with Debian's cross compiler and the headers and
# libraries of that architecture in a folder of their own; scripts/cross makes that folder.
#   ULMO_ARCHITECTURE   as Debian calls it: armhf or arm64
#   ULMO_SYSROOT        the folder
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ULMO_ARCHITECTURE ULMO_SYSROOT)
set(CMAKE_SYSTEM_NAME Linux)
if(ULMO_ARCHITECTURE STREQUAL armhf)
    set(CMAKE_SYSTEM_PROCESSOR armv7l)
    set(triplet arm-linux-gnueabihf)
    set(emulator qemu-arm-static)
elseif(ULMO_ARCHITECTURE STREQUAL arm64)
    set(CMAKE_SYSTEM_PROCESSOR aarch64)
    set(triplet aarch64-linux-gnu)
    set(emulator qemu-aarch64-static)
else()
    message(FATAL_ERROR "ULMO_ARCHITECTURE must be armhf or arm64, not \"${ULMO_ARCHITECTURE}\"")
endif()

set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(CMAKE_FIND_ROOT_PATH "${ULMO_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Libraries that those of the folder need themselves. The compiler brings its own C library, the
# same version.
set(link "-Wl,-rpath-link,${ULMO_SYSROOT}/usr/lib/${triplet}:${ULMO_SYSROOT}/lib/${triplet}")
foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT "${link}")
endforeach()
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ULMO_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${ULMO_SYSROOT}/usr/lib/${triplet}/pkgconfig:${ULMO_SYSROOT}/usr/share/pkgconfig")

# For tests.
set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator} -L "${ULMO_SYSROOT}")
