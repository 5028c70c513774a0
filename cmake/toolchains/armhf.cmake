# For armhf, with Debian's cross compiler; what is built is run by QEMU.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # whose notes are about compilers of long ago
