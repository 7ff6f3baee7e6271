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

// Converts one data line: 1 with its address and data byte, 0 for a line that carries no
// byte at all (empty, blanks, one character), -1 with a message for an address without its
// data byte.
int parse_eep_data_line(const char *line, uint32_t *address, uint8_t *data);

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
// *data_lines, when given, receives the number of data lines read.
int read_eep_image(FILE *file, int line_size, EepFileLayout layout, const EepImage &image,
                   uint32_t *end_address, int *data_lines = nullptr);

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

// --- I2C buses ---------------------------------------------------------------------------

// The buses "/dev/i2c-0" to "/dev/i2c-2", opened by every device function around its
// transfers. Device functions take 8-bit write-address bytes (7-bit address << 1).
constexpr int kI2cBusCount = 3;
extern int fd_i2c[kI2cBusCount];
extern int i2c_handle_initialized;

// The board's bus driver answers this request with the status of its last transfer; this
// value marks a transfer that may be repeated.
constexpr unsigned long I2C_BUSY_STATUS_REQUEST = 0x7702;
constexpr uint32_t kI2cStatusBusy = 0x80000004;
// Busy tries of one bus transfer before its failure is reported.
constexpr int kI2cBusyTries = 740;

// Result codes of the device functions.
constexpr int IIC_OK = 0;
constexpr int IIC_INVALID = 3;
constexpr int IIC_FAILED = 6;

// Opens the three buses (a bus that cannot be opened keeps -1) unless they are open.
void i2c_init();
// Closes the buses if they are open.
void i2c_deinit();
// Called at the start of every transfer; the board needs nothing done here.
void i2c_check_busy(int bus);
// One write message; busy transfers are repeated. 0, -1 for a zero length, a bus outside 0..2
// or a bus still busy after its tries, else the negated error number of the transfer.
int i2c_write(int bus, uint8_t address, uint16_t length, const uint8_t *data);
// A write message and a read message with a repeated start between them; results as above.
int i2c_read_write(int bus, uint8_t address, uint16_t write_length, const uint8_t *write_bytes,
                   uint16_t read_length, uint8_t *read_buffer);

// Bytes of the next write chunk at address: up to the end of its page, no more than left.
uint16_t i2c_page_chunk(uint32_t address, uint32_t left, uint32_t page_size);
// The error out-parameter of the chunked functions: bits 8..11 and 0..3 of a bus result.
uint8_t i2c_error_byte(int bus_result);

// The serial EEPROM of two-byte addresses (0x51) on the caller's bus: 32-byte pages, three
// attempts of the whole write. 0, 3 (negative address, bus outside 0..2, null source) or 6.
int IIC_EEPROM_Write(int bus, int16_t address, uint16_t length, const uint8_t *source,
                     uint16_t *count, uint8_t *error);
int IIC_EEPROM_Read(int bus, int16_t address, uint16_t length, uint8_t *error,
                    uint8_t *destination);
// A 512-byte EEPROM of one-byte word addresses (0x50/0x51 by address bit 8), 16-byte pages.
int IIC_EEPROM_HDMI_Write(int bus, int16_t address, uint16_t length, const uint8_t *source,
                          uint16_t *count, uint8_t *error);
int IIC_EEPROM_HDMI_Read(int bus, int16_t address, uint16_t length, uint8_t *error,
                         uint8_t *destination, uint16_t *count);

// Register interfaces on bus 2: a write sends 1 to 66 bytes as they are; a read writes the
// 2-byte register number and reads 1 or 2 bytes. 0, 3 for invalid arguments, 6 after three
// failed attempts.
int IIC_VornekEEP_Write(uint16_t length, const uint8_t *bytes);
int IIC_VornekEEP_Read(const uint8_t *write_bytes, uint16_t read_length, uint8_t *read_buffer);
// type 1 (0x0D) or 2 (0x0F); 20 ms pause after every write call.
int IIC_FPGAEEP_Write(uint16_t length, const uint8_t *bytes, int type);
int IIC_FPGAEEP_Read(const uint8_t *write_bytes, uint16_t read_length, uint8_t *read_buffer,
                     int type);
// index 0 (0x29) or 1 (0x2B), bus and address from kolma_eep_cfg.
int IIC_KOLMAEEP_Write(uint16_t length, const uint8_t *bytes, int index);
int IIC_KOLMAEEP_Read(const uint8_t *write_bytes, uint16_t read_length, uint8_t *read_buffer,
                      int index);

// (bus, address byte) per FPGA type and per KOLMA device index.
extern const uint8_t fpga_eep_cfg[4];
extern const uint8_t kolma_eep_cfg[4];
