// The TV microcontroller: its serial command link, its command set, the Motorola S-record
// reader for its firmware, and the firmware programming sequence.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// --- serial command link -------------------------------------------------------------------

// The microcontroller's UART and the driver's rate request (the rate is passed by value).
constexpr const char *kUatDevice = "/dev/uat_ucom";
constexpr unsigned long kUatSetRate = 2001;
constexpr int kUatRateDunly = 208333;
constexpr int kUatRateDefault = 128906;

constexpr uint8_t kUatStart = 0x3A;
constexpr uint8_t kUatAck = 0x30;
// Replies are read with an 8-bit index: no reply may reach 256 bytes.
constexpr int kUatMaxReply = 255;

// Link rate for a model: 208333 for names beginning with "DUNLY", 128906 for every other name
// (a null name included).
int tvm_link_rate(const char *model);

// Opens the link read-write, with no other flag; the descriptor, or -1.
int open_uat();
// Hands the link its rate with the driver's rate request; the result is not examined.
void set_uat_rate(int fd, int rate);

// Sum of count bytes, modulo 256: the checksum of every frame.
uint8_t uat_checksum(const uint8_t *bytes, size_t count);

// Sends a frame with one write, whose outcome is not examined. -1 for a null frame, else 0 (a
// link of -1 sends nothing).
int out_uat(int fd, const uint8_t *frame, int length);

// Reads one reply of exactly length bytes with one read and checks its last byte against the
// sum of the others. 0 for a good reply, -1 otherwise.
int in_uat(int fd, uint8_t *reply, int length);

// The four exchange forms. Each sends frame (frame_length bytes), reads replies of
// reply_length bytes into reply, and returns 0 when a reply was accepted (it passed in_uat and,
// where ack is asked for, carries 0x30 in byte 3), -1 when the form's tries are used up.

// Up to 10 tries of send and read; prints nothing.
int uat_exchange_single(int fd, const uint8_t *frame, int frame_length, uint8_t *reply,
                        int reply_length, bool ack);

// A command answered by a 5-byte acknowledge: the single-read exchange; 0 or -1.
int uat_acknowledged_command(int fd, const uint8_t *frame, int frame_length);

// Up to 10 sends, each followed by up to 10 reads until one passes; prints read_failed(frame, r)
// after a read that failed, and a time-out or negative-acknowledge line per failed send.
using UatReadFailed = void (*)(const uint8_t *frame, int read_count);
int uat_exchange_waiting(int fd, const uint8_t *frame, int frame_length, uint8_t *reply,
                         int reply_length, UatReadFailed read_failed);

// Up to 5 sends, each followed by up to 10 reads until one is accepted; every unaccepted read,
// and once more the tenth, prints the acknowledge-error line with the read count.
int uat_exchange_block(int fd, const uint8_t *frame, int frame_length, uint8_t *reply,
                       int reply_length);

// Up to 10 tries of send and read; prints the acknowledge-error or the no-reply line per
// failed try.
int uat_exchange_value(int fd, const uint8_t *frame, int frame_length, uint8_t *reply,
                       int reply_length);

// --- microcontroller commands --------------------------------------------------------------

// Running bank: 2 or 1; -1 when the query fails.
int tvm_GetStatus(int fd);
// 0..255, or -1.
int tvm_GetSoftwareVersion(int fd);
int tvm_GetMicroID(int fd);
// Sets or clears bits of one of the microcontroller's I/O ports; 0 or -1.
int tvmuio_SetPort(int fd, uint8_t port, uint8_t bits);
int tvmuio_ClearPort(int fd, uint8_t port, uint8_t bits);
int tvm_SetFlashWritingMode(int fd);
int tvm_SetGuarddogTime(int fd, uint8_t mode);
// Bank 1 or 2; any other bank is refused with nothing sent.
int tvm_EraseFlash(int fd, uint8_t bank);
// Writes 64 bytes at the low 24 bits of address; a null block is refused with nothing sent.
int tvm_WriteFlash(int fd, uint32_t address, const uint8_t *block);
// The bank's 16-bit checksum as the microcontroller computes it; 0xFFFF when the query fails.
uint16_t tvm_GetFlashCheckSum(int fd, uint8_t bank);
int tvm_CloseWriteFlash(int fd);

// --- Motorola S-record reader --------------------------------------------------------------

constexpr uint32_t MaxRomSize = 0x18000;
constexpr uint32_t kFlashBlockSize = 64;

// The firmware image of one flash bank, filled with 0xFF before every load.
extern uint8_t rom_buf[MaxRomSize];

// Record classes of MotSRecordGetType.
constexpr int kSRecordUnknown = 0;
constexpr int kSRecordHeader = 1;
constexpr int kSRecordData = 2;
constexpr int kSRecordTermination = 3;

// Copies the first n characters of text (fewer when it ends earlier) into one shared 64-byte
// buffer, overwritten by every call; empty for n above 63, null for a null text.
const char *ExtractString(const char *text, int n);

// 2, 4, 6 or 8 hexadecimal digits, most significant first. Each digit weighs its CharToHex
// value, so an invalid digit (or the end of the text) gives a value out of the width's range.
uint32_t ToHex1Byte(const char *text);
uint32_t ToHex2Byte(const char *text);
uint32_t ToHex3Byte(const char *text);
uint32_t ToHex4Byte(const char *text);

// The byte count of a record line (characters 2 and 3).
uint32_t MotSRecordGetDataLen(const char *line);
// The class of a record line; stores its address width in *width when a type is found.
int MotSRecordGetType(const char *line, int *width);
// The address of a data record, 0 for every other line.
uint32_t MotSRecordGetAddress(const char *line);
// 1 when the line's checksum byte is right, 0 when it is not or the line is shorter than its
// byte count says.
int MotSRecordCheckLineCheckSum(const char *line);

// What the loader made of one line: skipped (not a record, a wrong checksum), loaded, or what
// ended the load.
enum SRecordEvent {
    SREC_NOT_S_RECORD,
    SREC_BAD_CHECKSUM,
    SREC_HEADER,
    SREC_DATA,
    SREC_OUTSIDE_IMAGE,
    SREC_UNKNOWN_TYPE,
    SREC_TERMINATION,
};
using SRecordObserver = void (*)(void *context, SRecordEvent event, const char *line);

// Loads the data records that follow in file into rom_buf, relative to the address of the first
// data record, which it stores in *start_address. 0 when the section was read to its termination
// record or the end of the file, -1 when a record fell outside the image or was of no known type,
// or when no data byte was stored at all. With an observer every line read is reported to it
// and the loader prints nothing; without one it prints its messages for skipped and refused
// lines.
int MotSRecordLoadImage(FILE *file, uint32_t *start_address, SRecordObserver observe = nullptr,
                        void *context = nullptr);

// --- the firmware file ----------------------------------------------------------------------

// Reads lines up to the header of the bank's section ("TVM_BANK1" or "TVM_BANK2"); false
// when the file ends first.
bool find_section(FILE *file, uint8_t bank);
// The hexadecimal value in the last two characters of a version or ID line of at least two
// characters.
uint8_t section_line_value(const char *line);
// Longest version or ID line read (the rest of a longer line is read as the next line).
constexpr int kSectionHeaderLineSize = 30;

// Version FF always installs; the running version is kept; below F0 any other version
// installs; from F0 on only newer ones do.
enum VersionVerdict { VERSION_INSTALL, VERSION_SAME, VERSION_REFUSED };
VersionVerdict judge_version(uint8_t file_version, uint8_t running);

// Reads the section of the bank to be written and loads its image into rom_buf. 0 to program
// it, 1 when the running version is the file's (nothing to do), -1 when the file refuses or
// cannot be read.
int read_firmware_section(FILE *file, uint8_t bank, int running_version, int micro_id,
                          uint32_t *base);

// Sum of every byte of rom_buf: what the microcontroller must report for the programmed bank.
uint16_t image_checksum();

// --- firmware programming ------------------------------------------------------------------

// Programs the bank that is not running from "tvm.mot" in write_dir. 0 when it was programmed
// and confirmed, or when the file's version is the running one; -1 on every failure.
int Update_TVMHex(const char *write_dir, const char *model, int hdmi);
