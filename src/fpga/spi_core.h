// The SPI control device: a misc character device "spioctl" whose requests carry raw byte
// strings to and from the bus of the FPGA configuration ROMs.
#pragma once

#include <cstdint>
#include <cstdio>

// Requests of the device: plain numbers, not encoded with direction or size.
constexpr unsigned long SPIO_WRITE = 1;
constexpr unsigned long SPIO_WRITE_THEN_READ = 2;
constexpr unsigned long SPIO_SETUP = 3;

// One transfer: tx_len bytes sent from tx_buf, then rx_len bytes received into rx_buf (the
// write request reads only the first two fields).
struct spio_transfer {
    uint32_t tx_len;
    const uint8_t *tx_buf;
    uint32_t rx_len;
    uint8_t *rx_buf;
};

struct spio_setup_args {
    uint32_t mode;
    uint32_t bits_per_word;
};

constexpr const char *kSpiDevice = "/dev/spioctl";
constexpr const char *kMiscList = "/proc/misc";
constexpr const char *kSpiTmpNode = "/tmp/spioctl";
constexpr unsigned kMiscMajor = 10;

// An open read-write descriptor of the device; when /dev/spioctl is missing, a node made in
// /tmp from the minor number /proc/misc lists. -19 (-ENODEV) when /proc/misc cannot be read or
// lists no "spioctl"; -1 when the node cannot be made or opened.
int spi_open();
int spi_close(int fd);
// One request each; 0, or the request's negative result (reported with perror).
int spi_write(int fd, const uint8_t *buf, uint32_t len);
int spi_write_then_read(int fd, const uint8_t *tx, uint32_t tx_len, uint8_t *rx, uint32_t rx_len);
// Clock mode 3, 8 bits per word.
int spi_setup(int fd);

// The minor number of "spioctl" in a /proc/misc listing, or -1 when it lists none.
int spi_misc_minor(FILE *misc);
