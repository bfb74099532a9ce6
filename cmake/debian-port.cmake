# Toolchain file for another architecture, with the cross compilers and the foreign packages of Debian:
#
#   cmake --toolchain cmake/debian-port.cmake -DQUARROW_PORT=s390x ...
#
# QUARROW_PORT is Debian's name of the architecture: i386, armhf, arm64 or s390x. scripts/ports.sh installs what this takes.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUARROW_PORT)

set(CMAKE_SYSTEM_NAME Linux)
if(QUARROW_PORT STREQUAL "i386") # runs on an amd64 processor as it is
    set(CMAKE_SYSTEM_PROCESSOR i686)
    set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
elseif(QUARROW_PORT STREQUAL "armhf")
    set(CMAKE_SYSTEM_PROCESSOR armv7l)
    set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
    set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm-static)
elseif(QUARROW_PORT STREQUAL "arm64")
    set(CMAKE_SYSTEM_PROCESSOR aarch64)
    set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
    set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-aarch64-static)
elseif(QUARROW_PORT STREQUAL "s390x")
    set(CMAKE_SYSTEM_PROCESSOR s390x)
    set(CMAKE_CXX_COMPILER s390x-linux-gnu-g++)
    set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-s390x-static)
else()
    message(FATAL_ERROR "QUARROW_PORT is '${QUARROW_PORT}': debian-port.cmake knows i386, armhf, arm64 and s390x")
endif()

# It knows the build machine's libraries alone, and would lead find_package() to them.
set(PKG_CONFIG_EXECUTABLE /bin/false CACHE FILEPATH "No pkg-config for this architecture")
