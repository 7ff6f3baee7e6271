// What the medium search reads from the kernel: a USB disk's "size" file and the SD card
// driver's control file (read through a descriptor, as the tool opens it).
#include "fuzz_input.h"
#include "run/flashimg.h"

#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

void fuzz_one(const uint8_t *data, size_t size) {
    InputStream size_file(data, size);
    disk_sectors_in(size_file.rewound());
    int ctrl = memfd_create("ctrl", MFD_CLOEXEC);
    if (ctrl < 0 || write(ctrl, data, size) != static_cast<ssize_t>(size) ||
        lseek(ctrl, 0, SEEK_SET) != 0)
        abort();
    sdcard_reports_insert(ctrl);
    close(ctrl);
}
