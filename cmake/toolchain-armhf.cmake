# Cross build for the controller's 32-bit ARM (armhf, hard float) with Debian's cross compiler.
# The C and C++ runtimes come with the compiler (/usr/arm-linux-gnueabihf); the other target
# libraries (curl, OpenSSL, jsoncpp, SQLite, GoogleTest) live in a sysroot that
# `scripts/install-deps.sh armhf` lays out. Test executables run under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(triple arm-linux-gnueabihf)

set(CMAKE_C_COMPILER ${triple}-gcc)
set(CMAKE_CXX_COMPILER ${triple}-g++)

if(DEFINED ENV{RFEVENT_ARMHF_SYSROOT})
    set(RFEVENT_ARMHF_SYSROOT "$ENV{RFEVENT_ARMHF_SYSROOT}")
elseif(NOT RFEVENT_ARMHF_SYSROOT)
    set(RFEVENT_ARMHF_SYSROOT /opt/rfevent/armhf-sysroot)
endif()
if(NOT EXISTS ${RFEVENT_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/libssl.so)
    message(FATAL_ERROR "No armhf sysroot in ${RFEVENT_ARMHF_SYSROOT}: run scripts/install-deps.sh armhf")
endif()
# Try-compile projects see the toolchain file again; hand them the sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES RFEVENT_ARMHF_SYSROOT)
set(sysroot ${RFEVENT_ARMHF_SYSROOT})
set(libdir ${sysroot}/usr/lib/${triple})

# The sysroot is not a full root (no libc of its own), so it is searched after the compiler's
# own directories rather than replacing them through --sysroot.
set(include_flags "-idirafter ${sysroot}/usr/local/include -idirafter ${sysroot}/usr/include/${triple} -idirafter ${sysroot}/usr/include")
set(CMAKE_C_FLAGS_INIT "${include_flags}")
# -Wno-psabi: GCC notes that the ARM argument passing of some types changed in GCC 7.1; every
# object here is built by one compiler, so the note carries no information.
set(CMAKE_CXX_FLAGS_INIT "${include_flags} -Wno-psabi")
set(link_flags "-L${libdir} -Wl,-rpath-link,${libdir} -Wl,-rpath-link,${sysroot}/lib/${triple}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${link_flags}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${link_flags}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${link_flags}")

set(CMAKE_FIND_ROOT_PATH ${sysroot} ${sysroot}/usr/local /usr/${triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE ${triple})

set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR} "${libdir}/pkgconfig:${sysroot}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${sysroot}")

# ctest and gtest_discover_tests run the test executables through this.
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-arm -L /usr/${triple}
    -E LD_LIBRARY_PATH=${libdir}:${sysroot}/lib/${triple}:${sysroot}/usr/local/lib)
