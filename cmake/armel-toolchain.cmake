# Soft-float boards (Debian's armel: ARMv5TE and later, floating point in integer registers).
set(TVUPDATE_BOARD_TRIPLET arm-linux-gnueabi)
include(${CMAKE_CURRENT_LIST_DIR}/board-toolchain.cmake)
