# The TV main boards: 32-bit ARM with glibc, built with Debian's cross compiler for
# TVUPDATE_BOARD_TRIPLET (set by armhf-toolchain.cmake or armel-toolchain.cmake).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER ${TVUPDATE_BOARD_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TVUPDATE_BOARD_TRIPLET}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${TVUPDATE_BOARD_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# 64-bit file offsets: the simulator's host file systems have 64-bit inodes, and a large
# medium's directories need them. Time stays 32-bit: 64-bit time needs a C library of 2.34 or
# newer, and the board's programs only ever set the clock to the epoch.
set(TVUPDATE_BOARD_DEFINES _FILE_OFFSET_BITS=64)
set(TVUPDATE_BOARD_LINK_OPTIONS -static-libstdc++ -static-libgcc)
# The board programs ask for no C library symbol newer than GLIBC_2.4, the first ARM EABI glibc
# (src/platform/oldest_glibc.cpp).
set(TVUPDATE_OLDEST_GLIBC ON)
