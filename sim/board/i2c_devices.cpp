#include "board/i2c_devices.h"

#include "board/config_roms.h"
#include "board/registers.h"

#include <cstring>

namespace tvsim {

namespace {

constexpr uint16_t kUnlockA = 0x5745;
constexpr uint16_t kUnlockB = 0x5043;
constexpr size_t kReadWindow = 16;
constexpr int kReadCommand = 0x0007; // the read interface's command word

// The TR6 takes a key only after the one before it has settled: the 20 ms that the bus layer
// pauses after every FPGA register write and the 5 ms the block write pauses after each key.
constexpr uint64_t kTr6KeySettleUs = 25000;

constexpr RegisterMap kRegisterMaps[] = {
    {.model = "kolma",
     .block_size = 64,
     .enable = 0x0016,
     .enable_values = {0x0001, 0x0000},
     .enable_count = 2,
     .block_start = 0x4026,
     .first_key = {.reg = 0x40FA, .value = kUnlockA},
     .second_key = {.reg = 0x40FC, .value = kUnlockB},
     .address = 0x40FE,
     .status = 0x40F8,
     .data_words = 0x4100,
     .read_command = 0x4000,
     .read_address = 0x400A,
     .read_start = 0x401C,
     .read_status = 0x4002,
     .read_data = 0x400C,
     .read_fetch_us = 2000,
     .read_load_us = 1000},
    {.model = "vornek",
     .block_size = 64,
     .first_key = {.reg = 0x70FA, .value = kUnlockA},
     .second_key = {.reg = 0x70FC, .value = kUnlockB},
     .address = 0x70FE,
     .status = 0x70F8,
     .data_message = 0xF100},
    {.model = "fpga_tr5",
     .block_size = 32,
     .enable = 0x0020,
     .enable_values = {0x0000},
     .enable_count = 1,
     .first_key = {.reg = 0x48FA, .value = kUnlockA},
     .second_key = {.reg = 0x48FC, .value = kUnlockB},
     .address = 0x48FE,
     .status = 0x48F8,
     .data_words = 0x4900,
     .read_command = 0x4800,
     .read_address = 0x480A,
     .read_start = 0x4802,
     .read_status = 0x4802,
     .read_data = 0x480C,
     .pll_restart = 0x0022,
     .pll_status = 0x0010,
     .pll_locked = 0x001E,
     .calibration = 0x0012,
     .calibration_done = 0x0003},
    {.model = "fpga_tr6",
     .block_size = 32,
     .enable = 0x0020,
     .enable_values = {0x0000},
     .enable_count = 1,
     .block_start_read = 0x4804,
     .first_key = {.reg = 0x4874, .value = kUnlockB},
     .second_key = {.reg = 0x4876, .value = kUnlockA},
     .key_settle_us = kTr6KeySettleUs,
     .address = 0x4878,
     .status = 0x4872,
     .data_words = 0x487A,
     .fixed = {{.reg = 0x4804, .value = 0x0000}},
     .pll_restart = 0x0022,
     .pll_status = 0x0010,
     .pll_locked = 0x000E},
};

uint64_t setting(const json &config, const char *key, uint64_t fallback) {
    return number_from(member(config, key), fallback);
}

// --- serial EEPROM -----------------------------------------------------------------------

class SerialEeprom : public I2cDevice {
public:
    SerialEeprom(Board &board, const json &config)
        : I2cDevice(board, config), cells_(board, config), page_(setting(config, "page", 32)),
          width_(static_cast<int>(setting(config, "address_bytes", 2))) {}

    bool select(bool) override {
        return board_.now_ns() >= volatile_state().value("busy_until_ns", uint64_t{0});
    }

    size_t write_message(const uint8_t *bytes, size_t count) override {
        size_t i = 0;
        for (; i < count && address_bytes_ < width_; ++i, ++address_bytes_)
            counter_ = (counter_ << 8 | bytes[i]) % cells_.size();
        if (address_bytes_ == width_)
            volatile_state()["counter"] = counter_;
        pending_.insert(pending_.end(), bytes + i, bytes + count);
        return count;
    }

    void read_message(uint8_t *bytes, size_t count) override {
        size_t at = volatile_state().value("counter", size_t{0});
        for (size_t i = 0; i < count; ++i, at = (at + 1) % cells_.size())
            bytes[i] = cells_.get(at);
        volatile_state()["counter"] = at;
    }

    void stop(bool completed) override {
        if (completed && !pending_.empty())
            store_page();
        pending_.clear();
        address_bytes_ = 0;
    }

private:
    // Bytes past the page end wrap to its start; a later byte replaces an earlier one.
    void store_page() {
        size_t base = counter_ - counter_ % page_;
        size_t offset = counter_ % page_;
        for (uint8_t byte : pending_) {
            cells_.put(base + offset, &byte, 1);
            offset = (offset + 1) % page_;
        }
        volatile_state()["counter"] = base + offset;
        uint64_t cycle = setting(config(), "write_cycle_us", 5000) * kNsPerUs;
        volatile_state()["busy_until_ns"] = board_.now_ns() + cycle;
        board_.trace("eeprom_write", {{"device", name()},
                                      {"addr", counter_},
                                      {"count", pending_.size()},
                                      {"busy_ns", cycle}});
    }

    EepromCells cells_;
    size_t page_;
    int width_; // address bytes
    size_t counter_ = 0;
    int address_bytes_ = 0;
    std::vector<uint8_t> pending_;
};

// --- register interface --------------------------------------------------------------------

class RegisterInterface : public I2cDevice {
public:
    RegisterInterface(Board &board, const json &config, const RegisterMap &map)
        : I2cDevice(board, config), map_(map), cells_(board, config) {}

    bool select(bool) override {
        int pin = static_cast<int>(setting(config(), "reset_pin", 0xFFFF));
        uint64_t since = 0;
        if ((pin != 0xFFFF && pin_level(board_, pin) != 1) || !configured(&since)) {
            volatile_state() = json::object(); // held in reset, or no configuration to answer
            return false;
        }
        if (volatile_state().value("since_ns", uint64_t{0}) < since)
            volatile_state() = json{{"since_ns", since}}; // reconfigured since the last transfer
        return true;
    }

    size_t write_message(const uint8_t *bytes, size_t count) override {
        if (count < 2)
            return count; // an empty or one-byte message sets nothing
        uint16_t reg = static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
        if (count == 2 && readable(reg)) {
            pointer_ = reg;
            return count;
        }
        if (count == 2 + map_.block_size && reg == map_.data_message && reg != 0 && block_open()) {
            take_data(0, bytes + 2, map_.block_size);
            return count;
        }
        if (count == 4 && write_register(reg, static_cast<uint16_t>(bytes[2] << 8 | bytes[3])))
            return count;
        return 1; // the register's low byte is not acknowledged
    }

    void read_message(uint8_t *bytes, size_t count) override {
        if (pointer_ == map_.block_start_read && pointer_ != 0)
            start_block();
        uint16_t value = read_register(pointer_);
        const uint8_t pair[] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
        for (size_t i = 0; i < count; ++i)
            bytes[i] = pair[i % 2];
    }

private:
    json &reg_state() { return volatile_state(); }

    uint64_t ns_setting(const char *key, uint64_t fallback_us) const {
        return setting(config(), key, fallback_us) * kNsPerUs;
    }

    // An interface that the FPGA named by "fpga" offers: whether it does now, and since when.
    bool configured(uint64_t *since) {
        const json &fpga = member(config(), "fpga");
        return fpga.is_null() ||
               fpga_configured(board_, static_cast<int>(number_from(fpga, 0)), since);
    }

    // Whether the PLL has had its lock time since it was started; false while it is held.
    bool pll_settled(uint64_t extra_ns = 0) {
        const json &s = reg_state();
        return s.contains("pll_since_ns") &&
               board_.now_ns() >=
                   s["pll_since_ns"].get<uint64_t>() + ns_setting("pll_lock_us", 1000) + extra_ns;
    }

    uint16_t pll_value() {
        if (!pll_settled())
            return 0;
        if (board_.take_fault("pll_never_locks", name()) != nullptr)
            return map_.pll_locked & static_cast<uint16_t>(map_.pll_locked - 1);
        return map_.pll_locked;
    }

    uint16_t calibration_value() {
        if (!pll_settled(ns_setting("calibration_us", 2000)))
            return 0x0000;
        if (board_.take_fault("calibration_not_done", name()) != nullptr)
            return 0x0001;
        return map_.calibration_done;
    }

    // The EEPROM interface of an FPGA runs on its PLL (and calibration).
    bool clocks_ready() {
        return map_.pll_status == 0 ||
               (pll_value() == map_.pll_locked &&
                (map_.calibration == 0 || calibration_value() == map_.calibration_done));
    }

    bool enabled() {
        return map_.enable_count == 0 || reg_state().value("enable_step", 0) >= map_.enable_count;
    }
    bool has_block_start() const { return map_.block_start != 0 || map_.block_start_read != 0; }
    uint64_t key_settle_ns() const { return map_.key_settle_us * kNsPerUs; }
    // Both keys taken in order, the second settled, the lock not begun: the block registers
    // take the address and the data.
    bool open() {
        const json &s = reg_state();
        return s.value("keys", 0) == 2 && !s.value("closing", false) &&
               board_.now_ns() >= s.value("key_ns", uint64_t{0}) + key_settle_ns();
    }
    bool block_open() { return enabled() && open() && reg_state().contains("address"); }
    // A stored block being written into the EEPROM cells.
    bool settling() {
        const json &s = reg_state();
        return s.value("stored", false) && board_.now_ns() < s.value("settled_ns", uint64_t{0});
    }

    const FixedRegister *fixed(uint16_t reg) const {
        for (const FixedRegister &f : map_.fixed) {
            if (f.reg != 0 && f.reg == reg)
                return &f;
        }
        return nullptr;
    }

    // A read starts only after the read command and while no read is in progress. It fetches
    // the bytes at the read address (status low bit 0), loads them (bit 3), and only then do the
    // data registers show them; they keep them until the next read has done the same.
    void start_read() {
        json &s = reg_state();
        const char *refused = s.value("read_command", 0) != kReadCommand ? "no read command"
                              : read_progress() != 0                     ? "a read is in progress"
                                                                         : nullptr;
        if (refused != nullptr)
            return board_.trace("register_read_ignored", {{"device", name()}, {"why", refused}});
        s["read_next"] = s.value("read_address", 0);
        s["read_started_ns"] = board_.now_ns();
    }

    // The status bits of the read in progress; a read whose time has passed becomes the one
    // that the data registers show.
    uint8_t read_progress() {
        json &s = reg_state();
        if (!s.contains("read_next"))
            return 0;
        const uint64_t fetched =
            s["read_started_ns"].get<uint64_t>() + ns_setting("read_fetch_us", map_.read_fetch_us);
        if (board_.now_ns() < fetched)
            return 0x01;
        if (board_.now_ns() < fetched + ns_setting("read_load_us", map_.read_load_us))
            return 0x08;
        s["read_from"] = s["read_next"];
        s.erase("read_next");
        s.erase("read_started_ns");
        return 0;
    }

    uint16_t read_status() {
        uint8_t low = read_progress();
        if (const json *f = board_.take_fault("register_read_error", name()))
            low |= static_cast<uint8_t>(number_from(member(*f, "bits"), 0x01));
        return low;
    }

    bool in_read_data(uint16_t reg) const {
        return map_.read_data != 0 && reg >= map_.read_data && reg < map_.read_data + kReadWindow;
    }

    bool readable(uint16_t reg) {
        if (fixed(reg) != nullptr ||
            (reg != 0 && (reg == map_.pll_status || reg == map_.calibration)))
            return true;
        if (!enabled())
            return false;
        return (reg == map_.status && reg != 0) || (reg == map_.read_status && reg != 0) ||
               in_read_data(reg);
    }

    uint16_t read_register(uint16_t reg) {
        if (const FixedRegister *f = fixed(reg))
            return f->value;
        if (reg == map_.pll_status)
            return pll_value();
        if (reg == map_.calibration)
            return calibration_value();
        if (reg == map_.status)
            return status();
        if (in_read_data(reg)) {
            read_progress();
            const json &s = reg_state();
            if (!s.contains("read_from"))
                return 0; // no read started since the interface opened
            size_t at = s["read_from"].get<size_t>() + (reg - map_.read_data);
            return static_cast<uint16_t>(cells_.get(at) << 8 | cells_.get(at + 1));
        }
        return read_status();
    }

    uint16_t status() {
        json &s = reg_state();
        uint8_t high = 0;
        if (open() || settling())
            high |= 0x10;
        if (s.value("stored", false))
            high |= 0x01;
        if (const json *f = board_.take_fault("register_status_missing", name()))
            high &= static_cast<uint8_t>(~number_from(member(*f, "bits"), 0x01));
        if (const json *f = board_.take_fault("register_status_extra", name()))
            high |= static_cast<uint8_t>(number_from(member(*f, "bits"), 0x01));
        uint8_t low = static_cast<uint8_t>(s.value("sum", 0));
        if (const json *f = board_.take_fault("register_wrong_sum", name()))
            low = static_cast<uint8_t>(low + number_from(member(*f, "delta"), 1));
        return static_cast<uint16_t>(high << 8 | low);
    }

    bool is_data_word(uint16_t reg) const {
        return map_.data_words != 0 && reg >= map_.data_words &&
               reg < map_.data_words + map_.block_size && (reg - map_.data_words) % 2 == 0;
    }

    bool write_register(uint16_t reg, uint16_t value) {
        json &s = reg_state();
        if (reg == map_.pll_restart && reg != 0) {
            if (value == 0)
                s["pll_since_ns"] = board_.now_ns();
            else
                s.erase("pll_since_ns");
            return true;
        }
        if (reg == map_.enable && reg != 0) {
            if (!clocks_ready())
                return false;
            int step = s.value("enable_step", 0);
            s["enable_step"] = step < map_.enable_count && value == map_.enable_values[step]
                                   ? step + 1
                                   : (value == map_.enable_values[0] ? 1 : 0);
            return true;
        }
        if (fixed(reg) != nullptr)
            return true;
        if (!enabled())
            return false;
        if (reg == map_.first_key.reg || reg == map_.second_key.reg) {
            write_key(reg == map_.first_key.reg, value);
            return true;
        }
        if (reg == map_.block_start && reg != 0) {
            start_block();
            return true;
        }
        if (reg == map_.read_command && reg != 0) {
            s["read_command"] = value;
            return true;
        }
        if (reg == map_.read_address && reg != 0) {
            s["read_address"] = value;
            return true;
        }
        if (reg == map_.read_start && reg != 0) {
            start_read();
            return true;
        }
        if (reg == map_.address && open()) {
            s["address"] = value;
            return true;
        }
        if (is_data_word(reg) && block_open()) { // the data follows the address
            const uint8_t pair[] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
            take_data(reg - map_.data_words, pair, sizeof pair);
            return true;
        }
        return false; // the block registers take nothing while locked
    }

    void forget_block() {
        json &s = reg_state();
        s["sum"] = 0;
        s["data"] = std::string(map_.block_size * 2, 'x');
        s.erase("address");
    }

    void ignore(const char *what, const char *why) {
        board_.trace("register_key_ignored", {{"device", name()}, {"write", what}, {"why", why}});
    }

    // The block start: a new block begins, and the keys may follow.
    void start_block() {
        if (settling())
            return ignore("block start", "a stored block is settling");
        json &s = reg_state();
        s["armed"] = true;
        s["stored"] = false;
        forget_block();
    }

    // Block bytes at offset; received bytes are kept as hex digits, "xx" for none yet.
    void take_data(size_t offset, const uint8_t *bytes, size_t count) {
        json &s = reg_state();
        std::string data = s.value("data", std::string(map_.block_size * 2, 'x'));
        int sum = s.value("sum", 0);
        for (size_t i = 0; i < count && offset + i < map_.block_size; ++i) {
            data.replace(2 * (offset + i), 2, hex_bytes(bytes + i, 1));
            sum = (sum + bytes[i]) & 0xFF;
        }
        s["data"] = data;
        s["sum"] = sum;
    }

    // A write to a key register: unlocking takes the first key, then the second once the
    // first has settled; locking clears the first, then the second.
    void write_key(bool first, uint16_t value) {
        const char *what = first ? "first key" : "second key";
        if (settling())
            return ignore(what, "a stored block is settling");
        json &s = reg_state();
        int keys = s.value("keys", 0);
        if (value == (first ? map_.first_key : map_.second_key).value) {
            if (first && has_block_start() && !s.value("armed", false))
                return ignore(what, "no block start");
            if (!first && keys != 1)
                return ignore(what, "the first key is not set");
            if (!first && board_.now_ns() < s.value("key_ns", uint64_t{0}) + key_settle_ns())
                return ignore(what, "the first key has not settled");
            s["keys"] = keys = first ? 1 : 2;
            s["key_ns"] = board_.now_ns();
            s["closing"] = false;
            if (first)
                s["stored"] = false;
            forget_block();
            return;
        }
        if (value != 0 || keys != 2) { // a wrong key, or a lock before the unlock was complete
            s["keys"] = 0;
            return;
        }
        if (first) {
            s["closing"] = true;
            return;
        }
        if (s.value("closing", false))
            lock();
        else
            refuse_block("locked in the wrong order");
        s["keys"] = 0;
        s["closing"] = false;
        s["armed"] = false;
    }

    void refuse_block(const char *why) {
        reg_state()["stored"] = false;
        board_.trace("register_block_refused", {{"device", name()}, {"why", why}});
    }

    // Both keys cleared in order: the block is stored if it is complete.
    void lock() {
        json &s = reg_state();
        std::string data = s.value("data", std::string());
        int write_enable = static_cast<int>(setting(config(), "write_enable_pin", 0xFFFF));
        if (!s.contains("address") || data.size() != map_.block_size * 2 ||
            data.find('x') != std::string::npos)
            return refuse_block("incomplete");
        if (write_enable != 0xFFFF && pin_level(board_, write_enable) != 1)
            return refuse_block("write enable pin low");
        std::vector<uint8_t> block(map_.block_size);
        for (size_t i = 0; i < block.size(); ++i)
            block[i] = static_cast<uint8_t>(std::stoi(data.substr(2 * i, 2), nullptr, 16));
        size_t address = s["address"].get<size_t>();
        cells_.put(address, block.data(), block.size());
        s["stored"] = true;
        uint64_t settling = setting(config(), "write_us", 1000) * kNsPerUs;
        s["settled_ns"] = board_.now_ns() + settling;
        board_.trace("eeprom_write", {{"device", name()},
                                      {"addr", address},
                                      {"count", block.size()},
                                      {"busy_ns", settling}});
    }

    const RegisterMap &map_;
    EepromCells cells_;
    uint16_t pointer_ = 0;
};

} // namespace

const RegisterMap *register_map(std::string_view model) {
    for (const RegisterMap &map : kRegisterMaps) {
        if (model == map.model)
            return &map;
    }
    return nullptr;
}

std::vector<std::unique_ptr<I2cDevice>> i2c_devices_on(Board &board, int bus) {
    std::vector<std::unique_ptr<I2cDevice>> devices;
    const json &list = member(member(board.config(), "i2c"), "devices");
    for (const json &config : elements(list)) {
        if (number_from(member(config, "bus"), 0xFF) != static_cast<uint64_t>(bus))
            continue;
        std::string model = config.value("model", "");
        if (model == "serial_eeprom")
            devices.push_back(std::make_unique<SerialEeprom>(board, config));
        else if (const RegisterMap *map = register_map(model))
            devices.push_back(std::make_unique<RegisterInterface>(board, config, *map));
    }
    return devices;
}

} // namespace tvsim
