#include "fpga/update_fpga.h"

#include "common/holders.h"
#include "fpga/spi_core.h"
#include "hw/utils.h"
#include "run/main.h"
#include "tvmicro/tvm_update.h"

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

fpga_info fpga_info_table[kFpgaCount] = {
    {0, "fpga_config_sum_tr1", 1, 10, 100, 10},
    {0, "fpga_config_sum_tr5", 10, 16, 100, 60},
    {0, "fpga_config_lgd_tr6", 10, 16, 100, 60},
};

namespace {

constexpr uint8_t kWriteEnable = 0x06;
constexpr uint8_t kWriteDisable = 0x04;
constexpr uint8_t kBulkErase = 0xC7;
constexpr uint8_t kPageProgram = 0x02;
constexpr uint8_t kReadStatus = 0x05;
constexpr int kStatusRetries = 10;
constexpr uint32_t kFirstSelectionBit = 26;
constexpr uint8_t kMicroPort = 1;
constexpr uint8_t kMicroPortRomBus = 4;
constexpr size_t kImagePathSize = 512;

bool valid_type(int fpga_type) {
    return fpga_type >= 0 && fpga_type < kFpgaCount;
}

void write_access_pins(const uint8_t (&levels)[3]) {
    for (int i = 0; i < 3; ++i)
        PIO_BitWrite(kRomAccessPins[i], levels[i]);
    usleep(10 * 1000);
}

int send_opcode(int fd, uint8_t opcode, const char *name) {
    int result = spi_write(fd, &opcode, 1);
    if (result < 0) {
        printf("%s : error %d.\n", name, result);
        return result;
    }
    return 0;
}

void sleep_seconds(uint32_t s) {
    sleep(s);
}
void sleep_ms(uint32_t ms) {
    usleep(ms * 1000);
}

// Sends the microcontroller the port bit that connects the ROMs' bus; false when its link
// cannot be opened.
bool connect_rom_bus() {
    UniqueFd link(open_uat());
    if (!link.valid())
        return false;
    set_uat_rate(link.get(), kUatRateDefault);
    tvmuio_SetPort(link.get(), kMicroPort, kMicroPortRomBus);
    return true;
}

// Finds the image of a row in dir: the first entry, in directory order, whose name begins
// with the row's prefix (case ignored). Prints why and returns false when there is none.
bool find_image(const char *dir, const char *prefix, char (&path)[kImagePathSize]) {
    memset(path, 0, sizeof path);
    if (!bounded_format(path, sizeof path, "%s", dir)) {
        printf("**ERROR ** opendir failed on %s\n", dir);
        return false;
    }
    UniqueDir listing(opendir(path));
    if (!listing) {
        printf("**ERROR ** opendir failed on %s\n", path);
        return false;
    }
    size_t prefix_length = strlen(prefix);
    while (const struct dirent *entry = readdir(listing.get())) {
        if (strncasecmp(entry->d_name, prefix, prefix_length) != 0)
            continue;
        if (!bounded_format(path, sizeof path, "%s/%s", dir, entry->d_name)) {
            printf("**ERROR** fail to open file %s \n", entry->d_name);
            return false;
        }
        return true;
    }
    fputs("Config ROM file was not found.", stdout);
    return false;
}

// Erases the ROM once it reports ready; false (after its message) on any failure.
bool erase_rom(int fd, const fpga_info &row, uint8_t *status) {
    puts("Check tha status of SPI-ROM, please wait... ");
    if (!rom_wait_ready(fd, 10, sleep_ms, 100, status)) {
        printf(" Timeout RDSR(0x%02x)!\n", *status);
        return false;
    }
    if (cmd_rom_write_enable(fd) != 0)
        return false;
    if (cmd_rom_bulk_erase(fd) != 0) {
        cmd_rom_write_disable(fd);
        return false;
    }
    puts("Start erasing SPI-ROM, please wait... ");
    if (!rom_wait_ready(fd, row.erase_poll_count, sleep_seconds, row.erase_poll_interval_s,
                        status)) {
        printf(" Timeout RDSR(0x%02x)!\n", *status);
        return false;
    }
    return true;
}

// Writes the image page by page from address 0; false (after its message) on any failure.
bool write_image(int fd, FILE *image, uint32_t size, uint8_t *status) {
    fputs("Start writing to SPI-ROM, please wait... ", stdout);
    uint32_t address = 0;
    uint8_t page[kRomPageSize];
    while (!feof(image)) {
        size_t count = fread(page, 1, sizeof page, image);
        if (count > 0) {
            if (cmd_rom_write_enable(fd) != 0)
                return false;
            show_progress(size, address);
            if (cmd_rom_page_program(fd, address, page, static_cast<uint32_t>(count)) != 0) {
                cmd_rom_write_disable(fd);
                return false;
            }
            if (!rom_wait_ready(fd, 2, sleep_ms, 5, status)) {
                printf(" Timeout RDSR(0x%02x)!\n", *status);
                return false;
            }
            address += static_cast<uint32_t>(count);
        }
        if (ferror(image)) {
            printf("\nError on reading image %dbyte!\n", static_cast<int>(address));
            return false;
        }
    }
    printf("OK     \nEOF on reading image %dbyte!\n", static_cast<int>(address));
    return true;
}

// Programs the ROM of one row and waits for its FPGA; false when the run must stop.
bool program_rom(int fd, const char *dir, int fpga_type, uint8_t *status) {
    const fpga_info &row = fpga_info_table[fpga_type];
    char path[kImagePathSize];
    if (!find_image(dir, row.name, path))
        return false;
    printf("Reading from file : %s \n", path);
    {
        UniqueFile image(fopen(path, "rb"));
        struct stat st;
        // A directory opens too, and would fail only at its first read, after the erase.
        if (!image || fstat(fileno(image.get()), &st) != 0 || !S_ISREG(st.st_mode)) {
            printf("**ERROR** fail to open file %s \n", path);
            return false;
        }
        uint32_t size = static_cast<uint32_t>(st.st_size);
        set_pio_wren_default();
        set_pio_wren(fpga_type);
        if (!erase_rom(fd, row, status) || !write_image(fd, image.get(), size, status))
            return false;
    } // the image is released before the wait for the FPGA
    set_pio_wren_default();
    return IsFPGAConfigDone(fpga_type) == 1;
}

} // namespace

void set_pio_wren_default() {
    write_access_pins(kRomAccessIdle);
}

void set_pio_wren(int fpga_type) {
    if (valid_type(fpga_type))
        write_access_pins(kFpgaPins[fpga_type].access);
    else
        usleep(10 * 1000);
}

void set_pio_reset(int fpga_type) {
    if (!valid_type(fpga_type))
        return;
    int pin = kFpgaPins[fpga_type].reset;
    PIO_BitWrite(pin, 0);
    usleep(1000);
    PIO_BitWrite(pin, 1);
    usleep(1000);
    PIO_BitWrite(pin, 0);
    usleep(1000);
    PIO_BitWrite(pin, 1);
}

int get_pio_config_done(int fpga_type) {
    if (!valid_type(fpga_type))
        return -1;
    uint8_t level = 0;
    PIO_BitRead(kFpgaPins[fpga_type].config_done, &level);
    return level == 1 ? 1 : 0;
}

int cmd_rom_write_enable(int fd) {
    return send_opcode(fd, kWriteEnable, "cmd_rom_write_enable");
}

int cmd_rom_write_disable(int fd) {
    return send_opcode(fd, kWriteDisable, "cmd_rom_write_disable");
}

int cmd_rom_bulk_erase(int fd) {
    return send_opcode(fd, kBulkErase, "cmd_rom_bulk_erase");
}

int cmd_rom_page_program(int fd, uint32_t address, const uint8_t *data, uint32_t length) {
    HeapBuffer command(static_cast<size_t>(length) + 4);
    if (!command) {
        printf("%s : malloc error.\n", "cmd_rom_page_program");
        return -1;
    }
    uint8_t *bytes = command.get();
    bytes[0] = kPageProgram;
    bytes[1] = static_cast<uint8_t>(address >> 16);
    bytes[2] = static_cast<uint8_t>(address >> 8);
    bytes[3] = static_cast<uint8_t>(address);
    if (length > 0)
        memcpy(bytes + 4, data, length);
    int result = spi_write(fd, bytes, length + 4);
    if (result < 0) {
        printf("%s : adr 0x%08x error %d.\n", "cmd_rom_page_program", address, result);
        return result;
    }
    return 0;
}

int cmd_rom_read_status_register(int fd, uint8_t *status) {
    const uint8_t opcode = kReadStatus;
    uint8_t value = 0xFF;
    int result = 0;
    for (int attempt = 0; attempt <= kStatusRetries; ++attempt) {
        result = spi_write_then_read(fd, &opcode, 1, &value, 1);
        if (result >= 0) {
            *status = value;
            return 0;
        }
    }
    printf("%s : error sts=0x%x, retry=%d\n", "cmd_rom_read_status_register", value,
           kStatusRetries);
    return result;
}

bool rom_wait_ready(int fd, uint32_t count, void (*wait)(uint32_t), uint32_t wait_arg,
                    uint8_t *status) {
    for (uint32_t poll = 0; poll < count; ++poll) {
        if (cmd_rom_read_status_register(fd, status) == 0 && *status == 0x00)
            return true;
        wait(wait_arg);
    }
    return false;
}

int IsFPGAConfigDone(int fpga_type) {
    const fpga_info &row = fpga_info_table[fpga_type];
    for (uint32_t poll = 0; poll < row.done_poll_count; ++poll) {
        if (get_pio_config_done(fpga_type) == 1) {
            printf(" %s done.\n", row.name);
            return 1;
        }
        usleep(row.done_poll_interval_ms * 1000);
    }
    puts(" Timeout Config Done!");
    return 0;
}

int IsFPGAConfigDoneALL() {
    int result = 1;
    for (int fpga_type = 0; fpga_type < kFpgaCount; ++fpga_type) {
        if (fpga_info_table[fpga_type].selected != 1)
            continue;
        if (IsFPGAConfigDone(fpga_type) == 0) {
            result = 0;
            printf("Failed to check config done(fpga_type=%d)\n", fpga_type);
        }
    }
    return result;
}

void SetFPGAHwReset() {
    for (int fpga_type = 0; fpga_type < kFpgaCount; ++fpga_type)
        set_pio_reset(fpga_type);
}

int Update_FPGA(const char *dir, const char *, const uint32_t *flags) {
    for (int fpga_type = 0; fpga_type < kFpgaCount; ++fpga_type) {
        if ((flags[1] >> (kFirstSelectionBit + fpga_type)) & 1)
            fpga_info_table[fpga_type].selected = 1;
    }
    int result = -1;
    UniqueFd spi;
    if (int fd = spi_open(); fd >= 0) {
        spi.reset(fd);
        uint8_t status = 0xFF;
        bool ok = connect_rom_bus();
        for (int fpga_type = 0; ok && fpga_type < kFpgaCount; ++fpga_type) {
            if (fpga_info_table[fpga_type].selected != 0)
                ok = program_rom(spi.get(), dir, fpga_type, &status);
        }
        if (ok)
            result = 0;
    }
    set_pio_wren_default();
    return result;
}
