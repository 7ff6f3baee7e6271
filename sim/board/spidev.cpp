#include "board/spidev.h"

#include "board/config_roms.h"

#include <cerrno>
#include <cstring>
#include <linux/spi/spidev.h>

namespace tvsim {

namespace {

constexpr uint32_t kMaxMessageBytes = 65536;

class Spidev : public Device {
public:
    Spidev(Board &board, int rom) : Device(board), rom_(rom) {}

    dev_t node_number() const override { return makedev(153, static_cast<unsigned>(rom_)); }

    int ioctl(unsigned long request, uintptr_t arg) override {
        if (arg == 0) {
            errno = EFAULT;
            return -1;
        }
        if (_IOC_TYPE(request) == SPI_IOC_MAGIC && _IOC_NR(request) == 0 &&
            _IOC_DIR(request) == _IOC_WRITE)
            return message(reinterpret_cast<const spi_ioc_transfer *>(arg),
                           _IOC_SIZE(request) / sizeof(spi_ioc_transfer),
                           _IOC_SIZE(request) % sizeof(spi_ioc_transfer));
        void *p = reinterpret_cast<void *>(arg);
        switch (request) {
        case SPI_IOC_RD_MODE:
            *static_cast<uint8_t *>(p) = static_cast<uint8_t>(mode_);
            return 0;
        case SPI_IOC_RD_MODE32:
            *static_cast<uint32_t *>(p) = mode_;
            return 0;
        case SPI_IOC_WR_MODE:
            return set_mode(*static_cast<const uint8_t *>(p));
        case SPI_IOC_WR_MODE32:
            return set_mode(*static_cast<const uint32_t *>(p));
        case SPI_IOC_RD_LSB_FIRST:
        case SPI_IOC_RD_BITS_PER_WORD:
            *static_cast<uint8_t *>(p) = request == SPI_IOC_RD_LSB_FIRST ? 0 : 8;
            return 0;
        case SPI_IOC_WR_LSB_FIRST:
            return refuse_unless(*static_cast<const uint8_t *>(p) == 0);
        case SPI_IOC_WR_BITS_PER_WORD: {
            uint8_t bits = *static_cast<const uint8_t *>(p);
            return refuse_unless(bits == 0 || bits == 8);
        }
        case SPI_IOC_RD_MAX_SPEED_HZ:
            *static_cast<uint32_t *>(p) = speed_hz_;
            return 0;
        case SPI_IOC_WR_MAX_SPEED_HZ:
            speed_hz_ = *static_cast<const uint32_t *>(p);
            return refuse_unless(speed_hz_ != 0);
        default:
            errno = ENOTTY;
            return -1;
        }
    }

private:
    static int refuse_unless(bool ok) {
        if (ok)
            return 0;
        errno = EINVAL;
        return -1;
    }

    // The chips take clock modes 0 and 3 only.
    int set_mode(uint32_t mode) {
        if ((mode & ~uint32_t{SPI_MODE_3}) != 0 || (mode != SPI_MODE_0 && mode != SPI_MODE_3))
            return refuse_unless(false);
        mode_ = mode;
        return 0;
    }

    // One message: its transfers are clocked as one transaction; the result is the byte count.
    int message(const spi_ioc_transfer *transfers, size_t count, size_t rest) {
        if (rest != 0 || count == 0)
            return refuse_unless(false);
        std::vector<uint8_t> mosi;
        for (size_t i = 0; i < count; ++i) {
            const spi_ioc_transfer &t = transfers[i];
            if (mosi.size() + t.len > kMaxMessageBytes ||
                (t.bits_per_word != 0 && t.bits_per_word != 8))
                return refuse_unless(false);
            const auto *tx = reinterpret_cast<const uint8_t *>(static_cast<uintptr_t>(t.tx_buf));
            if (tx != nullptr)
                mosi.insert(mosi.end(), tx, tx + t.len);
            else
                mosi.resize(mosi.size() + t.len, 0x00);
        }
        std::vector<uint8_t> miso = spi_bus_clock(board_, mosi, 1u << rom_);
        spi_bus_time(board_, mosi.size());
        size_t at = 0;
        for (size_t i = 0; i < count; ++i) {
            const spi_ioc_transfer &t = transfers[i];
            if (auto *rx = reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(t.rx_buf)))
                memcpy(rx, miso.data() + at, t.len);
            at += t.len;
        }
        board_.trace("spidev", {{"rom", rom_}, {"transfers", count}, {"bytes", mosi.size()}});
        return static_cast<int>(mosi.size());
    }

    int rom_;
    uint32_t mode_ = SPI_MODE_0;
    uint32_t speed_hz_ = 10000000;
};

} // namespace

std::unique_ptr<Device> open_spidev(Board &board, std::string_view path, int, int *err) {
    constexpr std::string_view kPrefix = "/dev/spidev0.";
    const json &spi = member(board.config(), "spi");
    if (!spi.is_object() || !spi.value("spidev", true) || path.substr(0, kPrefix.size()) != kPrefix)
        return nullptr;
    std::string_view rest = path.substr(kPrefix.size());
    if (rest.size() != 1 || rest[0] < '0' || rest[0] >= '0' + kConfigRomCount)
        return nullptr;
    *err = 0;
    return std::make_unique<Spidev>(board, rest[0] - '0');
}

} // namespace tvsim
