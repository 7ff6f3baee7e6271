// The image list: every line of "flashimg.lst" into the update selection, from a USB stick and
// from an SD card, with volume recreation only named.
#include "fuzz_input.h"
#include "run/flashimg.h"

#include <cstdlib>
#include <initializer_list>

void fuzz_one(const uint8_t *data, size_t size) {
    InputStream list(data, size);
    for (MediaFound media : {MediaFound{true, false}, MediaFound{false, true}}) {
        uint32_t flags[4];
        // A list in memory always reads to its end; words 2 and 3 are never selected.
        if (read_update_list(list.rewound(), media, flags, true) != 0 || flags[2] != 0 ||
            flags[3] != 0)
            abort();
        print_update_selection(flags);
    }
}
