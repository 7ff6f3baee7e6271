// The firmware file "tvm.mot": the bank's section header, its version and ID lines and the
// records after them, for a running firmware below F0 (bank 1 written) and one from F0 on
// (bank 2 written), on a microcontroller whose ID is 12.
#include "fuzz_input.h"
#include "tvmicro/tvm_update.h"

#include <cstdlib>

void fuzz_one(const uint8_t *data, size_t size) {
    InputStream file(data, size);
    constexpr struct {
        uint8_t bank;
        int running_version;
    } kRuns[] = {{1, 0x10}, {2, 0xF5}};
    for (const auto &run : kRuns) {
        uint32_t base = 0;
        int section =
            read_firmware_section(file.rewound(), run.bank, run.running_version, 0x12, &base);
        if (section < -1 || section > 1)
            abort();
    }
}
