// The EEPROM text files, each layout as its updater reads it: the microcontroller's ("Version"
// line, data lines up to "CheckSum "), KOLMA and Vornek (data lines only, into
// images of one size), Pelto (one byte
// per line, parsed line by line). An image accepted is then walked block by block, the first and
// last byte of every block read.
#include "eeprom/eep_update.h"
#include "fuzz_input.h"
#include "hw/utils.h"

#include <cstdlib>

namespace {

constexpr int kLineSize = 64;
constexpr size_t kBlock = 64;

// The first and last byte: AddressSanitizer catches a block that passes the image's end.
int read_block(void *context, uint32_t, const uint8_t *block) {
    *static_cast<unsigned *>(context) += block[0] + block[kBlock - 1];
    return 0;
}

void read_and_walk(FILE *file, EepFileLayout layout, uint8_t *bytes, size_t size) {
    EepImage image{bytes, size, kBlock};
    uint32_t end_address = 0;
    int lines = 0;
    if (read_eep_image(file, kLineSize, layout, image, &end_address, &lines) != 0)
        return;
    if (lines < 0 || end_address >= size)
        abort();
    unsigned sum = 0;
    if (eep_block_walk(image, end_address, read_block, &sum) < 0)
        abort(); // an image that was accepted must be walkable
}

void parse_lines(FILE *file) {
    char line[kLineSize];
    while (Get_Fgets(line, sizeof line, file) != 0) {
        uint32_t address = 0;
        uint8_t data = 0;
        if (parse_eep_data_line(line, &address, &data) == 1 && address > 0xFFFF)
            abort();
    }
}

} // namespace

void fuzz_one(const uint8_t *data, size_t size) {
    InputStream file(data, size);
    read_and_walk(file.rewound(), EEP_LAYOUT_VERSIONED, eep_rom_buf, sizeof eep_rom_buf);
    read_and_walk(file.rewound(), EEP_LAYOUT_DATA_ONLY, kolma_eeprom_buf, sizeof kolma_eeprom_buf);
    parse_lines(file.rewound());
}
