// Calls one of the tool's updaters directly, for what the update run never asks of it:
//   call_updater tvm_eeprom DIR MODEL TARGET
//   call_updater tvm_hex DIR MODEL HDMI
// MODEL "-" passes no model name. Prints the updater's result and exits with 0 when it was 0.
// The updaters set the clock and drive devices: this runs only on a simulated board.
#include "eeprom/eep_update.h"
#include "tvmicro/tvm_update.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

int main(int argc, char **argv) {
    if (dlsym(RTLD_DEFAULT, "tvsim_attach") == nullptr || argc != 5) {
        fputs("usage: tvsim --board DIR -- call_updater tvm_eeprom|tvm_hex DIR MODEL NUMBER\n",
              stderr);
        return 2;
    }
    const char *model = strcmp(argv[3], "-") == 0 ? nullptr : argv[3];
    int number = atoi(argv[4]);
    int result = strcmp(argv[1], "tvm_hex") == 0 ? Update_TVMHex(argv[2], model, number)
                                                 : Update_TVMEeprom(argv[2], model, number);
    printf("result %d\n", result);
    return result == 0 ? 0 : 1;
}
