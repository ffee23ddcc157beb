# Cross-build for another architecture of Debian, with Debian's cross compiler and the headers and
# libraries of that architecture in a folder of their own; scripts/cross makes that folder.
#   ULMO_TRIPLET   the architecture as its compiler has it in its name, such as aarch64-linux-gnu
#   ULMO_SYSROOT   the folder
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ULMO_TRIPLET ULMO_SYSROOT)
set(CMAKE_SYSTEM_NAME Linux)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR "${ULMO_TRIPLET}")

set(CMAKE_C_COMPILER ${ULMO_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ULMO_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ULMO_TRIPLET})
set(CMAKE_FIND_ROOT_PATH "${ULMO_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Libraries that those of the folder need themselves. The compiler brings its own C library, the
# same version.
set(link "-Wl,-rpath-link,${ULMO_SYSROOT}/usr/lib/${ULMO_TRIPLET}")
string(APPEND link ":${ULMO_SYSROOT}/lib/${ULMO_TRIPLET}")
foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT "${link}")
endforeach()
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ULMO_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${ULMO_SYSROOT}/usr/lib/${ULMO_TRIPLET}/pkgconfig:${ULMO_SYSROOT}/usr/share/pkgconfig")

# For tests.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR}-static -L "${ULMO_SYSROOT}")
