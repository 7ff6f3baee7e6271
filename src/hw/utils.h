// Hardware helpers shared by the updaters: GPIO pins, I2C transfers, and the readers of the
// EEPROM data text files.
#pragma once

#include <cstdint>
#include <cstdio>

// --- EEPROM data text files --------------------------------------------------------------

// Size of the path buffer in which an updater builds the path of its file.
constexpr size_t kEepPathSize = 512;

// Reads one line of at most size - 1 characters and cuts it at its first line feed and then at
// its first carriage return. 1 for a line, 0 at the end of the file, on a read error or for a
// null buffer or stream. A longer line comes back in pieces, each a line of its own.
int Get_Fgets(char *buf, int size, FILE *stream);

// Value of a hexadecimal digit of either case; 0xFF for every other character.
uint8_t CharToHex(char c);

// Converts the first length characters of text into bytes: blanks and tabs between pairs are
// skipped, every other character starts a pair with the one after it. Stops at the end of the
// text, so a lone last character never begins a pair, and after bytes_size bytes. The number of
// bytes produced, or -1 for a null text or array.
int Str2Hex(const char *text, uint8_t *bytes, size_t bytes_size, uint8_t length);

// Looks in dir, in listing order, for the first entry whose name begins with prefix (letter
// case ignored) and builds dir + "/" + name in path.
enum EepFileSearch { EEP_FILE_FOUND, EEP_FILE_NO_DIR, EEP_FILE_NOT_FOUND, EEP_FILE_PATH_TOO_LONG };
EepFileSearch find_eep_text_file(const char *dir, const char *prefix, char *path, size_t path_size);

// Prints "Reading from file : %s \n" and opens path for reading; on failure prints the
// fail-to-open line and returns null.
FILE *open_eep_text_file(const char *path);

// File layouts: every line a data line, or a "Version" line first and data lines up to a
// "CheckSum " line.
enum EepFileLayout { EEP_LAYOUT_DATA_ONLY, EEP_LAYOUT_VERSIONED };

// A "Version" line (letter case ignored) opens a versioned file; a "CheckSum " line ends it.
bool eep_is_version_line(const char *line);
bool eep_is_checksum_line(const char *line);

// What a data line carries: nothing (empty, blanks, one character: skipped), an address
// without its data byte, or an address (first two bytes) and its byte (the third). The line's
// last character is not converted.
enum EepLineKind { EEP_LINE_EMPTY, EEP_LINE_NO_DATA, EEP_LINE_DATA };
EepLineKind decode_eep_data_line(const char *line, uint32_t *address, uint8_t *byte);

// Where a file's data lines go, and what its block walk will read.
struct EepImage {
    uint8_t *bytes;
    size_t size;       // valid addresses are below size
    size_t block_size; // the walk must stay inside bytes
};

// Fills the image with 0xFF and stores every data line's byte at its address, reading lines
// of at most line_size - 1 characters. *end_address is the address of the last data line read
// (0 when there is none). Lines carrying no byte are skipped. 0 on success; -1, with a message,
// for a missing "Version" line, a line with an address but no data byte, an address outside the
// image, or an end address whose last block would pass the end of the image.
int read_eep_image(FILE *file, int line_size, EepFileLayout layout, const EepImage &image,
                   uint32_t *end_address);

// True when the walk up to end_address stays inside the image.
bool eep_walk_fits(const EepImage &image, uint32_t end_address);

// Hands the image's blocks from address 0 while their start is below end_address to
// write_block, stopping at the first that returns non-zero; after every written block prints
// "\r %3d%% completed". The number of blocks written, or -1 when one failed or the walk would
// leave the image.
using EepBlockWriter = int (*)(void *context, uint32_t address, const uint8_t *block);
int eep_block_walk(const EepImage &image, uint32_t end_address, EepBlockWriter write_block,
                   void *context);

// --- GPIO pins ---------------------------------------------------------------------------

// Pins 0 to 95 in three banks of 32; each bank has one 32-bit register in window 1 that reports
// the pin levels when read and sets the levels driven on the bank's outputs when written.
constexpr int PIO_PIN_COUNT = 96;

// Where a pin lives: its bank register's physical address and its bit in that register.
struct PioRegisterBit {
    uint32_t address;
    unsigned bit;
};

// The bank register and bit of pin; false for a pin outside 0..95.
bool pio_register_bit(int pin, PioRegisterBit *where);

// Reads a pin's level (0 or 1) into *level when level is not null: 0, or -1 for a pin outside
// 0..95 ("Invalid pin: %d" on standard error) or when window 1 cannot be mapped.
int get_pio(int pin, uint32_t *level);
// Drives a pin with level 0 or 1 (one read and one write of its bank register): 0, or -1 for
// a pin outside 0..95 or a level above 1 (with a message on standard error, nothing mapped) or
// when window 1 cannot be mapped.
int set_pio(int pin, uint8_t level);

// Status codes of the PIO_ functions.
constexpr int PIO_OK = 0;
constexpr int PIO_BAD_PIN = 1;
constexpr int PIO_BAD_LEVEL = 2;
constexpr int PIO_NULL_LEVEL = 3;
constexpr int PIO_FAILED = 6;

// 3 for a null level, 1 for a pin outside 0..95, 6 when get_pio fails, else 0 with the level.
int PIO_BitRead(int pin, uint8_t *level);
// 2 for a level with any bit but bit 0, 1 for a pin outside 0..95, 6 when set_pio fails, else 0.
int PIO_BitWrite(int pin, uint8_t level);
// Drives pin 32 + n: 0, or 6 when set_pio fails (which it does for a pin beyond 95).
int PIO_OutputDataBitWrite2(uint8_t n, uint8_t level);
