#include "board/config_roms.h"

#include "board/registers.h"
#include "board/stored_cells.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <random>

namespace tvsim {

namespace {

constexpr uint64_t kForever = std::numeric_limits<uint64_t>::max();
constexpr uint64_t kMiB = 1024 * 1024;
constexpr unsigned kMiscMajor = 10;
constexpr size_t kMaxTransfer = 65536;

// Status register bits.
constexpr uint8_t kBusy = 0x01;
constexpr uint8_t kWriteEnableLatch = 0x02;
constexpr uint8_t kProtectBits = 0x1C;

// A configuration image begins with padding, then this word within its first page.
constexpr uint8_t kSyncWord[] = {0xAA, 0x99, 0x55, 0x66};
constexpr size_t kSyncWindow = 256;

// Lines of FPGA n: its ROM is granted to the bus when access pin n reads its grant level.
constexpr int kAccessPins[kConfigRomCount] = {83, 63, 31};
constexpr int kGrantLevel[kConfigRomCount] = {0, 1, 1};
constexpr int kResetPins[kConfigRomCount] = {36, 40, 38};
constexpr int kDonePins[kConfigRomCount] = {16, 39, 37};

// The parts in each ROM's place and the range a board draws its times from: around the parts'
// typical times (a 16 Mbit flash for FPGA 0, 64 Mbit flashes for the larger FPGAs 1 and 2,
// whose bitstreams take longer to load), from 80 % to 150 % of typical, below their maximums.
struct TimeRange {
    uint64_t low, high;
};
struct RomPart {
    uint32_t jedec_id;
    uint64_t size;
    TimeRange page_program_us, bulk_erase_ms, fpga_load_ms;
};
constexpr RomPart kRomParts[kConfigRomCount] = {
    {.jedec_id = 0xEF4015,
     .size = 2 * kMiB,
     .page_program_us = {560, 1050},
     .bulk_erase_ms = {2400, 4500},
     .fpga_load_ms = {280, 525}},
    {.jedec_id = 0xEF4017,
     .size = 8 * kMiB,
     .page_program_us = {560, 1050},
     .bulk_erase_ms = {16000, 30000},
     .fpga_load_ms = {2000, 3750}},
    {.jedec_id = 0xEF4017,
     .size = 8 * kMiB,
     .page_program_us = {560, 1050},
     .bulk_erase_ms = {16000, 30000},
     .fpga_load_ms = {2000, 3750}},
};

// The microcontroller's port bit that connects the bus to the ROMs.
constexpr const char *kBusPort = "1";
constexpr int kBusPortBit = 4;

// The bus clock of a new board (and of one whose board.json does not give it).
constexpr uint64_t kClockHz = 10000000;

const json &spi_config(const Board &board) {
    return member(board.config(), "spi");
}

struct RomConfig {
    std::string path; // of the contents file
    uint64_t size;
    uint32_t jedec_id;
    uint32_t page_size;
    uint64_t page_program_ns;
    uint64_t bulk_erase_ns;
    uint8_t protect;
    uint64_t load_ns;
};

RomConfig read_rom_config(const Board &board, int n) {
    const json &roms = member(spi_config(board), "roms");
    const json &c = roms.is_array() && static_cast<size_t>(n) < roms.size() ? roms[n] : json();
    RomConfig r;
    r.path = board.file(member(c, "file").is_string() ? member(c, "file").get<std::string>()
                                                      : "spi_rom" + std::to_string(n) + ".bin");
    const RomPart &part = kRomParts[n];
    r.size = std::max<uint64_t>(number_from(member(c, "size"), part.size), 1);
    r.jedec_id = static_cast<uint32_t>(number_from(member(c, "jedec_id"), part.jedec_id));
    r.page_size =
        static_cast<uint32_t>(std::max<uint64_t>(number_from(member(c, "page_size"), 256), 1));
    r.page_program_ns =
        number_from(member(c, "page_program_us"), part.page_program_us.low) * kNsPerUs;
    r.bulk_erase_ns = number_from(member(c, "bulk_erase_ms"), part.bulk_erase_ms.low) * kNsPerMs;
    r.protect = static_cast<uint8_t>(number_from(member(c, "protect"), 0) & kProtectBits);
    r.load_ns = number_from(member(c, "fpga_load_ms"), part.fpga_load_ms.low) * kNsPerMs;
    return r;
}

// The bus and its chips as board.json describes them.
struct SpiSettings {
    bool present; // the board has the SPI control device
    uint64_t clock_hz;
    RomConfig roms[kConfigRomCount];
};

SpiSettings read_spi_settings(const Board &board) {
    const json &spi = spi_config(board);
    SpiSettings s{.present = spi.is_object(),
                  .clock_hz = std::max<uint64_t>(number_from(member(spi, "clock_hz"), kClockHz), 1),
                  .roms = {}};
    for (int n = 0; n < kConfigRomCount; ++n)
        s.roms[n] = read_rom_config(board, n);
    return s;
}

const SpiSettings &spi_settings(Board &board) {
    return board.derived(read_spi_settings);
}

const RomConfig &rom_config(Board &board, int n) {
    return spi_settings(board).roms[n];
}

// Volatile state of chip or FPGA n (state.json "soc", cleared by a power cycle).
json &volatile_state(Board &board, const char *kind, int n) {
    json &s = soc_state(board)[std::string(kind) + std::to_string(n)];
    if (!s.is_object())
        s = json::object();
    return s;
}

// The first limit bytes in hexadecimal, "..." when there are more.
std::string hex_prefix(const uint8_t *bytes, size_t count, size_t limit = 8) {
    return hex_bytes(bytes, std::min(count, limit)) + (count > limit ? "..." : "");
}

// The contents of one chip, its file made at first use; a read runs on past the end from
// address 0.
class RomContents : public StoredCells {
public:
    RomContents(Board &board, const RomConfig &config)
        : StoredCells(board, config.path, config.size) {
        make_file();
    }

    void read_around(uint64_t address, uint8_t *out, size_t count) const {
        while (count > 0) {
            address %= size();
            size_t n = static_cast<size_t>(std::min<uint64_t>(count, size() - address));
            read(address, out, n);
            address += n;
            out += n;
            count -= n;
        }
    }
};

// One SPI NOR flash chip on the bus.
class FlashChip {
public:
    FlashChip(Board &board, int n)
        : board_(board), n_(n), config_(rom_config(board, n)), contents_(board, config_),
          state_(volatile_state(board, "spi_rom", n)) {}

    // One transaction: mosi is every byte clocked in; miso receives the chip's answer.
    void transact(const std::vector<uint8_t> &mosi, std::vector<uint8_t> &miso) {
        if (mosi.empty())
            return;
        uint8_t op = mosi[0];
        if (op == 0x05) {
            uint8_t status = status_register();
            std::fill(miso.begin() + 1, miso.end(), status);
            return;
        }
        if (busy()) {
            ignored(op, "busy");
            return;
        }
        switch (op) {
        case 0x06:
        case 0x04:
            if (mosi.size() == 1)
                state_["wel"] = op == 0x06;
            return;
        case 0x9F: {
            const uint8_t id[] = {static_cast<uint8_t>(config_.jedec_id >> 16),
                                  static_cast<uint8_t>(config_.jedec_id >> 8),
                                  static_cast<uint8_t>(config_.jedec_id)};
            std::copy_n(id, std::min(miso.size() - 1, sizeof id), miso.begin() + 1);
            return;
        }
        case 0x03:
            if (mosi.size() > 4)
                contents_.read_around(address_of(mosi), miso.data() + 4, miso.size() - 4);
            return;
        case 0x02:
            page_program(mosi);
            return;
        case 0xC7:
        case 0x60:
            if (mosi.size() == 1)
                bulk_erase();
            return;
        default:
            ignored(op, "unknown");
        }
    }

private:
    bool busy() const { return board_.now_ns() < number_from(member(state_, "busy_until"), 0); }

    uint8_t status_register() {
        if (const json *f = board_.take_fault("spi_status", "rom" + std::to_string(n_)))
            return static_cast<uint8_t>(number_from(member(*f, "value"), 0xFF));
        uint8_t status = config_.protect;
        if (busy())
            status |= kBusy | kWriteEnableLatch; // the latch clears when the operation ends
        else if (state_.value("wel", false))
            status |= kWriteEnableLatch;
        return status;
    }

    // Program and erase need the latch and an unprotected chip; starting one clears the latch
    // for when it ends.
    bool may_modify(uint8_t op) {
        if (!state_.value("wel", false)) {
            ignored(op, "write enable latch clear");
            return false;
        }
        if (config_.protect != 0) {
            ignored(op, "protected");
            return false;
        }
        state_["wel"] = false;
        return true;
    }

    static uint64_t address_of(const std::vector<uint8_t> &mosi) {
        return static_cast<uint64_t>(mosi[1]) << 16 | mosi[2] << 8 | mosi[3];
    }

    // The data wrap within the addressed page; of more than a page, the last page's worth counts.
    void page_program(const std::vector<uint8_t> &mosi) {
        if (mosi.size() < 5 || !may_modify(0x02))
            return;
        uint64_t address = address_of(mosi) % config_.size;
        uint64_t page = address - address % config_.page_size;
        size_t count = mosi.size() - 4;
        size_t first = count > config_.page_size ? count - config_.page_size : 0;
        count = first + board_.done_before_power_cut(count - first);
        for (size_t i = first; i < count;) {
            uint64_t in_page = (address - page + i) % config_.page_size;
            size_t run =
                static_cast<size_t>(std::min<uint64_t>(count - i, config_.page_size - in_page));
            contents_.program(page + in_page, &mosi[4 + i], run);
            i += run;
        }
        start_busy("page_program", "spi_program_stuck", config_.page_program_ns);
    }

    void bulk_erase() {
        if (!may_modify(0xC7))
            return;
        contents_.erase();
        start_busy("bulk_erase", "spi_erase_stuck", config_.bulk_erase_ns);
    }

    // The chip works on op for busy_ns, or for ever when the stuck fault strikes.
    void start_busy(const char *op, const char *stuck_fault, uint64_t busy_ns) {
        if (board_.take_fault(stuck_fault, "rom" + std::to_string(n_)) != nullptr) {
            state_["busy_until"] = kForever;
            board_.trace("rom_busy", {{"rom", n_}, {"op", op}, {"stuck", true}});
            return;
        }
        state_["busy_until"] = board_.now_ns() + busy_ns;
        board_.trace("rom_busy", {{"rom", n_}, {"op", op}, {"busy_ns", busy_ns}});
    }

    void ignored(uint8_t op, const char *why) {
        board_.trace("spi_ignored", {{"rom", n_}, {"op", hex_prefix(&op, 1)}, {"why", why}});
    }

    Board &board_;
    int n_;
    const RomConfig &config_;
    RomContents contents_;
    json &state_;
};

bool granted_by_pins(Board &board, int n) {
    return pin_level(board, kAccessPins[n]) == kGrantLevel[n];
}

bool bus_connected(Board &board) {
    const json &ports = member(member(board.state(), "microcontroller"), "ports");
    return (number_from(member(ports, kBusPort), 0) & kBusPortBit) != 0;
}

// Whether ROM n holds a configuration image (a missing file is an erased chip).
bool image_valid(Board &board, int n) {
    const RomConfig &config = rom_config(board, n);
    std::vector<uint8_t> head(kSyncWindow);
    StoredCells(board, config.path, config.size).read(0, head.data(), head.size());
    return std::search(head.begin(), head.end(), std::begin(kSyncWord), std::end(kSyncWord)) !=
           head.end();
}

bool in_reset(Board &board, int n) {
    return pin_level(board, kResetPins[n]) == 0;
}

// A load of FPGA n from its ROM, begun at start_ns: configured when the FPGA could read a
// valid image (its ROM not granted to the bus), done after the load time.
json load_state(Board &board, int n, uint64_t start_ns, bool valid) {
    return json{{"loaded_at", start_ns},
                {"done_at", start_ns + rom_config(board, n).load_ns},
                {"configured", valid}};
}

// FPGA n begins loading from its ROM now.
void start_load(Board &board, int n) {
    bool valid = !granted_by_pins(board, n) && image_valid(board, n);
    bool never = board.take_fault("config_done_never", "fpga" + std::to_string(n)) != nullptr;
    volatile_state(board, "fpga", n) = load_state(board, n, board.now_ns(), valid && !never);
    board.trace("fpga_load",
                {{"fpga", n}, {"image", valid}, {"busy_ns", rom_config(board, n).load_ns}});
}

// An FPGA holds its configuration while it is out of reset and its ROM is not granted to the
// bus (taking the ROM away holds the FPGA in configuration); then it answers from the start of
// its last load.
bool holds_configuration(Board &board, int n, uint64_t *since_ns) {
    const json &fpga = volatile_state(board, "fpga", n);
    if (in_reset(board, n) || granted_by_pins(board, n) || !fpga.value("configured", false))
        return false;
    *since_ns = number_from(member(fpga, "loaded_at"), 0);
    return true;
}

class SpiControlDevice : public Device {
public:
    using Device::Device;

    int ioctl(unsigned long request, uintptr_t arg) override {
        const char *name = request == 1   ? "write"
                           : request == 2 ? "write_then_read"
                           : request == 3 ? "setup"
                                          : nullptr;
        if (name == nullptr) {
            errno = ENOTTY;
            return -1;
        }
        if (arg == 0)
            return fail(name, EFAULT);
        if (const json *f = board_.take_fault("spi_request", name))
            return fail(name, errno_from_name(f->value("errno", json("EIO"))));
        return request == 3 ? setup(reinterpret_cast<const Setup *>(arg))
                            : transfer(request == 2, reinterpret_cast<const Transfer *>(arg));
    }

    dev_t node_number() const override {
        return makedev(kMiscMajor,
                       static_cast<unsigned>(number_from(member(spi_config(board_), "minor"), 61)));
    }

private:
    // The driver's records, as the program lays them out.
    struct Transfer {
        uint32_t tx_len;
        const uint8_t *tx_buf;
        uint32_t rx_len;
        uint8_t *rx_buf;
    };
    struct Setup {
        uint32_t mode;
        uint32_t bits_per_word;
    };

    int fail(const char *name, int err) {
        board_.trace("spi", {{"op", name}, {"errno", err}});
        errno = err;
        return -1;
    }

    int setup(const Setup *args) {
        if (args->mode > 3 || args->bits_per_word != 8)
            return fail("setup", EINVAL);
        board_.trace("spi", {{"op", "setup"}, {"mode", args->mode}});
        return 0;
    }

    int transfer(bool then_read, const Transfer *t) {
        const char *name = then_read ? "write_then_read" : "write";
        uint32_t rx_len = then_read ? t->rx_len : 0;
        if (t->tx_len > kMaxTransfer || rx_len > kMaxTransfer)
            return fail(name, EINVAL);
        if ((t->tx_len > 0 && t->tx_buf == nullptr) || (rx_len > 0 && t->rx_buf == nullptr))
            return fail(name, EFAULT);
        std::vector<uint8_t> tx(t->tx_buf, t->tx_buf + t->tx_len);
        std::vector<uint8_t> rx(rx_len);
        unsigned roms = selected_roms(board_);
        spi_bus_transfer(board_, tx, rx, roms);
        spi_bus_time(board_, tx.size() + rx.size());
        if (rx_len > 0)
            memcpy(t->rx_buf, rx.data(), rx_len);
        const int clocked = static_cast<int>(tx.size() + rx.size());
        std::string sent = hex_prefix(tx.data(), tx.size(), 4);
        if (then_read)
            board_.trace("spi", {{"len", tx.size()},
                                 {"op", name},
                                 {"roms", roms},
                                 {"rx", hex_prefix(rx.data(), rx.size())},
                                 {"tx", sent}});
        else
            board_.trace("spi", {{"len", tx.size()}, {"op", name}, {"roms", roms}, {"tx", sent}});
        return clocked; // the driver's count of bytes on the bus
    }
};

// One line of /proc/misc: the minor number right-aligned in three places, then the name.
std::string format_misc_line(uint64_t minor, const std::string &name) {
    char number[24];
    snprintf(number, sizeof number, "%3llu ", static_cast<unsigned long long>(minor));
    return number + name + "\n";
}

// A board's own time within a part's range, drawn from its seed.
uint64_t draw(std::mt19937_64 &random, const TimeRange &range) {
    return range.low + random() % (range.high - range.low + 1);
}

} // namespace

unsigned selected_roms(Board &board) {
    if (!bus_connected(board))
        return 0;
    unsigned roms = 0;
    for (int n = 0; n < kConfigRomCount; ++n) {
        if (granted_by_pins(board, n))
            roms |= 1u << n;
    }
    return roms;
}

std::vector<uint8_t> spi_bus_clock(Board &board, const std::vector<uint8_t> &mosi, unsigned roms) {
    std::vector<uint8_t> bus(mosi.size(), 0xFF); // pulled up; selected chips pull bits low
    for (int n = 0; n < kConfigRomCount; ++n) {
        if ((roms >> n & 1) == 0)
            continue;
        std::vector<uint8_t> miso(mosi.size(), 0xFF);
        FlashChip(board, n).transact(mosi, miso);
        for (size_t i = 0; i < bus.size(); ++i)
            bus[i] &= miso[i];
    }
    return bus;
}

void spi_bus_transfer(Board &board, const std::vector<uint8_t> &tx, std::vector<uint8_t> &rx,
                      unsigned roms) {
    std::vector<uint8_t> mosi(tx);
    mosi.resize(tx.size() + rx.size(), 0x00);
    std::vector<uint8_t> bus = spi_bus_clock(board, mosi, roms);
    std::copy(bus.begin() + static_cast<std::ptrdiff_t>(tx.size()), bus.end(), rx.begin());
}

void spi_bus_time(Board &board, size_t bytes) {
    board.advance_ns(bytes * 8 * kNsPerSecond / spi_settings(board).clock_hz);
}

std::unique_ptr<Device> open_spi_device(Board &board, std::string_view path, int, int *err) {
    const json &spi = spi_config(board);
    if (!spi.is_object())
        return nullptr;
    bool by_name = path == "/dev/spioctl" && spi.value("node", true);
    dev_t number = 0;
    bool by_node = board.node_at(std::string(path), &number);
    if (!by_name && !by_node)
        return nullptr;
    auto device = std::make_unique<SpiControlDevice>(board);
    if (!spi.value("driver", true) || (by_node && number != device->node_number())) {
        *err = ENODEV; // no driver behind that device number
        return nullptr;
    }
    *err = 0;
    return device;
}

void refresh_misc_file(Board &board) {
    std::string text = "130 watchdog\n183 hw_random\n";
    const json &spi = spi_config(board);
    for (const json &other : member(spi, "misc_before")) {
        if (other.is_object())
            text += format_misc_line(number_from(member(other, "minor"), 0),
                                     other.value("name", std::string()));
    }
    if (spi.is_object() && spi.value("driver", true))
        text += format_misc_line(number_from(member(spi, "minor"), 61), "spioctl");
    text += "  1 psaux\n";
    write_file(board.file("fs/proc/misc"), text);
    // spidev's transfer limit, as its module parameter reports it
    std::error_code ec;
    std::filesystem::create_directories(board.file("fs/sys/module/spidev/parameters"), ec);
    write_file(board.file("fs/sys/module/spidev/parameters/bufsiz"), "4096\n");
}

// The pin levels change one at a time: a change to a line's other level is its edge.
void config_rom_pin_changed(Board &board, int pin, int level) {
    if (!spi_settings(board).present)
        return;
    for (int n = 0; n < kConfigRomCount; ++n) {
        bool access_returned = pin == kAccessPins[n] && level != kGrantLevel[n];
        bool reset_rose = pin == kResetPins[n] && level == 1;
        if (reset_rose || (access_returned && !in_reset(board, n)))
            start_load(board, n);
    }
}

std::optional<int> config_rom_pin_input(Board &board, int pin) {
    if (!spi_settings(board).present)
        return std::nullopt;
    for (int n = 0; n < kConfigRomCount; ++n) {
        if (pin != kDonePins[n])
            continue;
        uint64_t since = 0;
        return holds_configuration(board, n, &since) &&
                       board.now_ns() >=
                           number_from(member(volatile_state(board, "fpga", n), "done_at"), 0)
                   ? 1
                   : 0;
    }
    return std::nullopt;
}

bool config_rom_pin_powers_on_high(Board &board, int pin) {
    if (!spi_settings(board).present)
        return false;
    for (int n = 0; n < kConfigRomCount; ++n) {
        if (pin == kAccessPins[n])
            return kGrantLevel[n] == 0; // idle: not granted
        if (pin == kResetPins[n])
            return true; // out of reset
    }
    return false;
}

void config_rom_power_on(Board &board, json &soc) {
    if (!spi_settings(board).present)
        return;
    for (int n = 0; n < kConfigRomCount; ++n)
        soc["fpga" + std::to_string(n)] = load_state(board, n, 0, image_valid(board, n));
}

bool fpga_configured(Board &board, int n, uint64_t *since_ns) {
    *since_ns = 0;
    if (!spi_settings(board).present || n < 0 || n >= kConfigRomCount)
        return false;
    return holds_configuration(board, n, since_ns);
}

json default_spi_config(uint64_t seed) {
    std::mt19937_64 random(seed);
    json roms = json::array();
    for (int n = 0; n < kConfigRomCount; ++n) {
        const RomPart &part = kRomParts[n];
        roms.push_back({{"file", "spi_rom" + std::to_string(n) + ".bin"},
                        {"size", part.size},
                        {"jedec_id", hex_text(part.jedec_id, 6)},
                        {"page_size", 256},
                        {"page_program_us", draw(random, part.page_program_us)},
                        {"bulk_erase_ms", draw(random, part.bulk_erase_ms)},
                        {"protect", "0x00"},
                        {"fpga_load_ms", draw(random, part.fpga_load_ms)}});
    }
    json others =
        json::array({{{"minor", 62}, {"name", "spioctl2"}}, {{"minor", 63}, {"name", "spioctlx"}}});
    return json{{"node", true}, {"driver", true},       {"minor", 61}, {"misc_before", others},
                {"seed", seed}, {"clock_hz", kClockHz}, {"roms", roms}};
}

} // namespace tvsim
