// The S-record reader: a record file loaded into the firmware image, once printing its messages
// and once reporting every line to an observer; both loads must agree.
#include "fuzz_input.h"
#include "tvmicro/tvm_update.h"

#include <cstdlib>
#include <cstring>

namespace {

uint8_t first_image[MaxRomSize];

void count_event(void *context, SRecordEvent, const char *) {
    ++*static_cast<int *>(context);
}

} // namespace

void fuzz_one(const uint8_t *data, size_t size) {
    InputStream file(data, size);
    uint32_t start = 0;
    int printed = MotSRecordLoadImage(file.rewound(), &start);
    memcpy(first_image, rom_buf, sizeof first_image);
    uint32_t observed_start = 0;
    int events = 0;
    int observed = MotSRecordLoadImage(file.rewound(), &observed_start, count_event, &events);
    if (printed != observed || start != observed_start ||
        memcmp(first_image, rom_buf, sizeof first_image) != 0)
        abort();
}
