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

// Rewrites the microcontroller's EEPROM (target 0, every block read back and compared) or the
// Ferund EEPROM (target 1, television switched on and picture muted first) from the
// "TVM_DATA" text file in write_dir. 0 when at least one block was written and every block
// succeeded; -1 otherwise.
int Update_TVMEeprom(const char *write_dir, const char *model, int target);

// Writes one 64-byte block at address to the target's EEPROM; data shorter than 64 bytes
// (length) is padded with 0xFF. 0 when acknowledged with status 0, -1 for null data or when
// no try succeeded.
int WriteEeprom(int fd, uint32_t address, const uint8_t *data, int length, uint8_t target);

// Reads the 64 bytes at address of the microcontroller's own EEPROM into buffer, of which at
// most length bytes are filled. 0 on success, -1 for a null buffer or when no try succeeded.
int ReadEeprom(int fd, uint32_t address, uint8_t *buffer, int length);

// Switches the television on (on == 1) or off (any other value); 0 or -1.
int tvm_PowerOnOff(int fd, int on);

// Mutes the picture; 0 or -1.
int tvm_setPictureMute(int fd);

// Name of a model's EEPROM text file, or null; the table holds only 0, "RESERVED".
const char *GetEEPTextFile(int model_id);
