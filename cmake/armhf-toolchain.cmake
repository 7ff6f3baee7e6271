# Hard-float boards (Debian's armhf: ARMv7, VFP registers for floating-point arguments).
set(TVUPDATE_BOARD_TRIPLET arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/board-toolchain.cmake)
