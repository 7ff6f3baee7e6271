// EEPROM updates from the medium's EEPROM text files: the microcontroller's own EEPROM and the
// Ferund EEPROM behind it, written through commands on the microcontroller's serial link.
#pragma once

#include <cstddef>
#include <cstdint>

// The image of one EEPROM text file, refilled by every updater that uses it.
constexpr size_t kEepRomSize = 32767;
extern uint8_t eep_rom_buf[kEepRomSize];

// Block size of the microcontroller's EEPROM commands.
constexpr int kTvmEepromBlock = 64;

// Targets of the EEPROM write command.
constexpr int kTvmEepromOwn = 0;
constexpr int kTvmEepromFerund = 1;

// Whether the model's microcontroller reaches the Ferund EEPROM: its name starts with one of
// the known prefixes (longer names of the same family count).
bool ferund_allowed(const char *model);

// Rewrites the microcontroller's EEPROM (target 0, every block read back and compared) or the
// Ferund EEPROM (target 1, television switched on and picture muted first) from the
// "TVM_DATA" text file in write_dir. 0 when at least one block was written and every block
// succeeded; -1 otherwise.
int Update_TVMEeprom(const char *write_dir, const char *model, int target);

// Writes one 64-byte block at address to the target's EEPROM. 0 when acknowledged with status
// 0; -1 for null data, for a length other than 64 (refused before anything is sent) or when no
// try succeeded.
int WriteEeprom(int fd, uint32_t address, const uint8_t *data, int length, uint8_t target);

// Reads the 64 bytes at address of the microcontroller's own EEPROM into buffer, which must hold
// 64 (length). 0 on success; -1 for a null buffer, for a length other than 64 (refused before
// anything is sent) or when no try succeeded.
int ReadEeprom(int fd, uint32_t address, uint8_t *buffer, int length);

// Switches the television on (on == 1) or off (any other value); 0 or -1.
int tvm_PowerOnOff(int fd, int on);

// Mutes the picture; 0 or -1.
int tvm_setPictureMute(int fd);

// Name of a model's EEPROM text file, or null; the table holds only 0, "RESERVED".
const char *GetEEPTextFile(int model_id);

// --- EEPROMs on the I2C buses ------------------------------------------------------------

// Writes the Pelto EEPROM (bus 0) from the "PELTO_DATA" text file, one byte per data line in
// file order, each read back at once. 0 when the last verified line matched; -1 otherwise.
int Update_PeltoEeprom(const char *model, const char *write_dir);

// The image of the KOLMA text file, and the KOLMA device (0 or 1) every register access of
// the KOLMA functions goes to.
constexpr size_t kKolmaEepromSize = 32767;
extern uint8_t kolma_eeprom_buf[kKolmaEepromSize];
extern int eep_flags;

// Writes one KOLMA device's EEPROM (index copied into eep_flags when not null) from the
// "kolma_eep" text file in 64-byte blocks. 0; -1, 1 (enable failed) or 2 (a block's lock was
// not confirmed) otherwise.
int Update_KOLMAEeprom(const char *write_dir, const char *model, const int *index);
// Releases the KOLMA reset line (GPIO pin 23) unless it is released already.
void SetKolmaHwReset();
// Enables the EEPROM interface: 0, or 1 when a register write failed.
int EnableKOLMAEeprom();
// Polls the write status until the bits of pattern (high, low) are set: 0, or 1 after
// timeout_us of 1 ms steps.
int CheckKOLMAWriteStatus(const uint8_t *pattern, int timeout_us);
// One block through unlock, address, data words, sum and lock: 0 when the lock is confirmed,
// else 2.
int WriteKOLMAEeprom(uint32_t address, const uint8_t *data, int length);
// Reads up to 16 bytes at address through the read interface: 0, or 1.
int ReadKOLMAEeprom(uint32_t address, uint8_t *buffer, int length);

// The image of the FPGA EEPROM text file, and the GPIO pin driven high for a TR5 update.
constexpr size_t kFpgaEepromSize = 2047;
extern uint8_t fpga_eeprom_buf[kFpgaEepromSize];
constexpr int kFpgaEepromPin = 95;

// Writes the EEPROM of FPGA type 1 (TR5, "tr5_eep" file) or 2 (TR6, "tr6_eep") in 32-byte
// blocks after the FPGA's configuration, reset and PLL lock. 0; -1, or the failing step's
// result (1: PLL or calibration, or a TR6 block; 2: a block's lock not confirmed) otherwise.
// GPIO pin 95 is left at 0 on every path.
int Update_FPGAEeprom(const char *write_dir, const char *model, const uint32_t *flags, int type);
// Waits for the PLL to lock (and for TR5 the calibration) and enables the EEPROM interface:
// 0, or 1 with a message.
int EnableFPGAEeprom(int type);
// One TR5 block through unlock, address, data words, sum and lock: 0 when the lock is
// confirmed, else 2.
int WriteFPGAEeprom(uint32_t address, const uint8_t *data, int length);
// One TR6 block: 0, 1 when the unlock or the sum was not confirmed, 2 when the lock was not.
int WriteFPGAEeprom_TR6(uint32_t address, const uint8_t *data, int length);
// Polls the TR6 write status until the bits of pattern (high, low) are set: 0, or 1 after
// timeout_us of 1 ms steps.
int CheckFPGAWriteStatus(const uint8_t *pattern, int timeout_us);
// Reads up to 16 bytes at address of the TR5 EEPROM: 0, or 1.
int ReadFPGAEeprom(uint32_t address, uint8_t *buffer, int length);

// Writes the Vornek EEPROM from "vornek_eep.txt" in 64-byte blocks. 0; -1, 1 or 2 otherwise.
// No step of the update run calls it.
int Update_VornekEeprom(const char *write_dir);
// One 64-byte block: 0, 1 when a step failed (or for null data or a length outside 1..64),
// 2 when the lock was not confirmed.
int WriteVornekEeprom(uint32_t address, const uint8_t *data, int length);
