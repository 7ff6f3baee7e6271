#include "fpga/spi_core.h"
#include "common/report.h"

#include "common/holders.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

// Any non-negative result is success; a failure is reported under the request's name.
int spi_request(int fd, unsigned long request, void *arg, const char *label) {
    int result = ioctl(fd, request, arg);
    if (result < 0) {
        report_error(label);
        return result;
    }
    return 0;
}

// Replaces the node in /tmp with one for (10, minor) and opens it.
int open_tmp_node(int minor) {
    if (unlink(kSpiTmpNode) != 0 && errno != ENOENT) {
        report_error("unlink");
        return -1;
    }
    if (mknod(kSpiTmpNode, S_IFCHR | 0660, makedev(kMiscMajor, minor)) != 0) {
        report_error("mknod");
        return -1;
    }
    int fd = open(kSpiTmpNode, O_RDWR);
    if (fd < 0) {
        report_error("open");
        return -1;
    }
    return fd;
}

} // namespace

int spi_misc_minor(FILE *misc) {
    int minor = 0;
    char name[64];
    while (fscanf(misc, "%d %63s", &minor, name) == 2) {
        if (strcmp(name, "spioctl") == 0)
            return minor;
    }
    return -1;
}

int spi_open() {
    int fd = open(kSpiDevice, O_RDWR);
    if (fd >= 0)
        return fd;
    printf("%s is not found : create new one for spioctl under /tmp.\n", kSpiDevice);
    int minor;
    {
        UniqueFile misc(fopen(kMiscList, "r"));
        if (!misc) {
            report_error("open /proc/misc");
            return -ENODEV;
        }
        minor = spi_misc_minor(misc.get());
    }
    if (minor < 0) {
        puts("Cannot find spioctl driver");
        return -ENODEV;
    }
    return open_tmp_node(minor);
}

int spi_close(int fd) {
    close(fd);
    return 0;
}

int spi_write(int fd, const uint8_t *buf, uint32_t len) {
    spio_transfer transfer{len, buf, 0, nullptr};
    return spi_request(fd, SPIO_WRITE, &transfer, "SPIO_WRITE");
}

int spi_write_then_read(int fd, const uint8_t *tx, uint32_t tx_len, uint8_t *rx, uint32_t rx_len) {
    spio_transfer transfer{tx_len, tx, rx_len, rx};
    return spi_request(fd, SPIO_WRITE_THEN_READ, &transfer, "SPIO_WRITE_THEN_READ");
}

int spi_setup(int fd) {
    spio_setup_args args{3, 8};
    return spi_request(fd, SPIO_SETUP, &args, "SPIO_SETUP");
}
