# The TV main board: 32-bit ARM with glibc. Debian's cross compiler.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# 64-bit file offsets and time: the simulator's host file systems have 64-bit inodes, and the
# board's clock must outlive 2038.
set(TVUPDATE_BOARD_DEFINES _FILE_OFFSET_BITS=64 _TIME_BITS=64)
set(TVUPDATE_BOARD_LINK_OPTIONS -static-libstdc++ -static-libgcc)
