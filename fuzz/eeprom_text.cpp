// The EEPROM text files, each layout as its updater reads it: the microcontroller's ("Version"
// line, data lines up to "CheckSum "), KOLMA and Vornek (data lines only, into images of one
// size), the FPGAs' (32-character lines, 32-byte blocks of a 2 KiB EEPROM), Pelto (one byte
// per line, parsed line by line). An image accepted is then walked block by block, the first and
// last byte of every block read.
#include "eeprom/eep_update.h"
#include "fuzz_input.h"
#include "hw/utils.h"

#include <cstdlib>

namespace {

constexpr int kLineSize = 64;
constexpr size_t kBlock = 64;
constexpr int kFpgaLineSize = 32;
constexpr size_t kFpgaBlock = 32;
uint8_t fpga_eeprom[2048];

struct BlockReader {
    size_t block_size;
    unsigned sum;
};

// The first and last byte: AddressSanitizer catches a block that passes the image's end.
int read_block(void *context, uint32_t, const uint8_t *block) {
    auto *reader = static_cast<BlockReader *>(context);
    reader->sum += block[0] + block[reader->block_size - 1];
    return 0;
}

void read_and_walk(FILE *file, EepFileLayout layout, uint8_t *bytes, size_t size,
                   int line_size = kLineSize, size_t block = kBlock) {
    EepImage image{bytes, size, block};
    uint32_t end_address = 0;
    int lines = 0;
    if (read_eep_image(file, line_size, layout, image, &end_address, &lines) != 0)
        return;
    if (lines < 0 || end_address >= size)
        abort();
    BlockReader reader{block, 0};
    if (eep_block_walk(image, end_address, read_block, &reader) < 0)
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
    read_and_walk(file.rewound(), EEP_LAYOUT_DATA_ONLY, fpga_eeprom, sizeof fpga_eeprom,
                  kFpgaLineSize, kFpgaBlock);
    parse_lines(file.rewound());
}
