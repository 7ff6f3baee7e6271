// The kernel's tables the tool scans: "/proc/mtd" for a partition by name (the input's first
// line is the name looked for, the rest the table), by part of the name and exactly, and
// "/proc/misc" for the SPI control driver's minor number.
#include "fpga/spi_core.h"
#include "fuzz_input.h"
#include "nand/nand_raw_write.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>

void fuzz_one(const uint8_t *data, size_t size) {
    HeadAndRest input = split_first_line(data, size);
    InputStream table(input.rest, input.rest_size);
    for (bool exact : {false, true}) {
        char device[kMtdDeviceNameSize + 1];
        memset(device, 'X', sizeof device);
        int found = check_mtdname_in(table.rewound(), input.head, device, exact);
        // A device found is "mtd" and its digits, terminated inside the buffer.
        if (found != 0 &&
            (found != 1 || strnlen(device, kMtdDeviceNameSize) == kMtdDeviceNameSize ||
             strncmp(device, "mtd", 3) != 0))
            abort();
    }
    InputStream misc(data, size);
    spi_misc_minor(misc.rewound());
}
