# Toolchain: cross-building by Debian's compiler for the processor that dpkg-architecture has exported.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR $ENV{DEB_HOST_GNU_CPU})
set(CMAKE_CXX_COMPILER $ENV{DEB_HOST_GNU_TYPE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE $ENV{DEB_HOST_MULTIARCH})
