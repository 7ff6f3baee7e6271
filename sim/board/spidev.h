// The configuration ROMs as the kernel's generic spidev nodes "/dev/spidev0.N" (ROM N): the
// view a bench programmer has through a clip on the chip, whatever the access lines say. It
// lets SPI tools that no one here wrote (flashrom's linux_spi) read and check the same chips
// the update tool writes. Requests: SPI_IOC_MESSAGE(n) (the transfers of one message form one
// transaction with chip select held), and the mode, bits-per-word, LSB-first and maximum-speed
// settings. board.json "spi" "spidev": false removes the nodes.
#pragma once

#include "board/board.h"
#include "board/device.h"

namespace tvsim {

std::unique_ptr<Device> open_spidev(Board &board, std::string_view path, int flags, int *err);

} // namespace tvsim
