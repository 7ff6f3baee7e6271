// Calls one of the tool's updaters directly, for what the update run never asks of it:
//   call_updater tvm_eeprom DIR MODEL TARGET
//   call_updater tvm_hex DIR MODEL HDMI
//   call_updater vornek DIR - -
//   call_updater pelto_read - - ADDRESS      (one byte of the Pelto EEPROM, printed in hex)
// MODEL "-" passes no model name. Prints the updater's result and exits with 0 when it was 0.
// The updaters set the clock and drive devices: this runs only on a simulated board.
#include "eeprom/eep_update.h"
#include "hw/utils.h"
#include "tvmicro/tvm_update.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

namespace {

int read_pelto_byte(int address) {
    uint8_t error = 0;
    uint8_t byte = 0;
    int result = IIC_EEPROM_Read(0, static_cast<int16_t>(address), 1, &error, &byte);
    if (result == 0)
        printf("0x%02x\n", byte);
    return result;
}

int call(const char *updater, const char *dir, const char *model, const char *number_text) {
    int number = static_cast<int>(strtol(number_text, nullptr, 0));
    if (strcmp(updater, "tvm_hex") == 0)
        return Update_TVMHex(dir, model, number);
    if (strcmp(updater, "tvm_eeprom") == 0)
        return Update_TVMEeprom(dir, model, number);
    if (strcmp(updater, "vornek") == 0)
        return Update_VornekEeprom(dir);
    if (strcmp(updater, "pelto_read") == 0)
        return read_pelto_byte(number);
    fprintf(stderr, "call_updater: no updater %s\n", updater);
    return -1;
}

} // namespace

int main(int argc, char **argv) {
    if (dlsym(RTLD_DEFAULT, "tvsim_attach") == nullptr || argc != 5) {
        fputs("usage: tvsim --board DIR -- call_updater UPDATER DIR MODEL NUMBER\n", stderr);
        return 2;
    }
    const char *model = strcmp(argv[3], "-") == 0 ? nullptr : argv[3];
    int result = call(argv[1], argv[2], model, argv[4]);
    printf("result %d\n", result);
    return result == 0 ? 0 : 1;
}
