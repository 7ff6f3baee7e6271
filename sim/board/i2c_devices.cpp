#include "board/i2c_devices.h"

#include "board/config_roms.h"
#include "board/registers.h"

#include <cstring>

namespace tvsim {

namespace {

constexpr uint64_t kNsPerUs = 1000;
constexpr uint16_t kUnlockA = 0x5745;
constexpr uint16_t kUnlockB = 0x5043;
constexpr size_t kReadWindow = 16;

constexpr RegisterMap kRegisterMaps[] = {
    {"kolma",
     64,
     0x0016,
     {0x0001, 0x0000},
     2,
     0x4026,
     0x40FA,
     0x40FC,
     0x40FE,
     0x40F8,
     0x4100,
     0,
     0x4000,
     0x400A,
     0x401C,
     0x4002,
     0x400C,
     {}},
    {"vornek", 64, 0, {}, 0, 0, 0x70FA, 0x70FC, 0x70FE, 0x70F8, 0, 0xF100, 0, 0, 0, 0, 0, {}},
    // FPGA interfaces: the roles above, then the PLL and calibration registers.
    {"fpga_tr5", 32,     0x0020, {0x0000}, 1,      0,  0x48FA, 0x48FC, 0x48FE, 0x48F8, 0x4900, 0,
     0x4800,     0x480A, 0x4802, 0x4802,   0x480C, {}, 0x0022, 0x0010, 0x001E, 0x0012, 0x0003},
    {"fpga_tr6", 32,     0x0020, {0x0000}, 1, 0, 0x4876, 0x4874, 0x4878,
     0x4872,     0x487A, 0,      0,        0, 0, 0,      0,      {{0x4804, 0x0000}},
     0x0022,     0x0010, 0x000E},
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
        board_.trace("eeprom_write",
                     {{"device", name()}, {"addr", counter_}, {"count", pending_.size()}});
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
        uint16_t value = read_register(pointer_);
        uint8_t pair[2] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
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
    bool unlocked() { return reg_state().value("a", false) && reg_state().value("b", false); }
    bool block_open() { return enabled() && unlocked(); }

    const FixedRegister *fixed(uint16_t reg) const {
        for (const FixedRegister &f : map_.fixed) {
            if (f.reg != 0 && f.reg == reg)
                return &f;
        }
        return nullptr;
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
            size_t at = reg_state().value("read_address", size_t{0}) + (reg - map_.read_data);
            return static_cast<uint16_t>(cells_.get(at) << 8 | cells_.get(at + 1));
        }
        return 0; // read status: the read interface is always ready
    }

    uint16_t status() {
        json &s = reg_state();
        uint8_t high = 0;
        if (unlocked())
            high |= 0x10;
        if (s.value("stored", false) && board_.now_ns() >= s.value("stored_at_ns", uint64_t{0}))
            high |= 0x01;
        if (const json *f = board_.take_fault("register_status_missing", name()))
            high &= static_cast<uint8_t>(~number_from(member(*f, "bits"), 0x01));
        uint8_t low = static_cast<uint8_t>(s.value("sum", 0));
        if (const json *f = board_.take_fault("register_wrong_sum", name()))
            low = static_cast<uint8_t>(low + number_from(member(*f, "delta"), 1));
        return static_cast<uint16_t>(high << 8 | low);
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
        if (reg == map_.enable && map_.enable_count > 0) {
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
        if (reg == map_.unlock_a || reg == map_.unlock_b) {
            unlock(reg == map_.unlock_a ? "a" : "b", value,
                   reg == map_.unlock_a ? kUnlockA : kUnlockB);
            return true;
        }
        if (reg == map_.block_start && reg != 0) {
            forget_block();
            return true;
        }
        if (reg == map_.read_command || reg == map_.read_start)
            return reg != 0;
        if (reg == map_.read_address && reg != 0) {
            s["read_address"] = value;
            return true;
        }
        if (!unlocked())
            return false; // the block registers take nothing while locked
        if (reg == map_.address) {
            s["address"] = value;
            return true;
        }
        if (map_.data_words != 0 && reg >= map_.data_words &&
            reg < map_.data_words + map_.block_size && (reg - map_.data_words) % 2 == 0) {
            uint8_t pair[2] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
            take_data(reg - map_.data_words, pair, 2);
            return true;
        }
        return false;
    }

    void forget_block() {
        json &s = reg_state();
        s["sum"] = 0;
        s["data"] = std::string(map_.block_size * 2, 'x');
        s.erase("address");
    }

    // Block bytes at offset; received bytes are kept as hex digits, "xx" for none yet.
    void take_data(size_t offset, const uint8_t *bytes, size_t count) {
        json &s = reg_state();
        std::string data = s.value("data", std::string(map_.block_size * 2, 'x'));
        int sum = s.value("sum", 0);
        static constexpr char kDigits[] = "0123456789abcdef";
        for (size_t i = 0; i < count && offset + i < map_.block_size; ++i) {
            data[2 * (offset + i)] = kDigits[bytes[i] >> 4];
            data[2 * (offset + i) + 1] = kDigits[bytes[i] & 0xF];
            sum = (sum + bytes[i]) & 0xFF;
        }
        s["data"] = data;
        s["sum"] = sum;
    }

    void unlock(const char *which, uint16_t value, uint16_t key) {
        json &s = reg_state();
        bool was_unlocked = unlocked();
        if (value == key) {
            s[which] = true;
            if (!was_unlocked && unlocked()) {
                forget_block();
                s["stored"] = false;
            }
            return;
        }
        s[which] = false;
        if (was_unlocked && value == 0)
            s["locking"] = true;
        if (s.value("locking", false) && !s.value("a", false) && !s.value("b", false)) {
            s.erase("locking");
            lock();
        }
    }

    // Both unlock registers cleared: the block is stored if it is complete.
    void lock() {
        json &s = reg_state();
        std::string data = s.value("data", std::string());
        int write_enable = static_cast<int>(setting(config(), "write_enable_pin", 0xFFFF));
        bool complete = s.contains("address") && data.size() == map_.block_size * 2 &&
                        data.find('x') == std::string::npos &&
                        (write_enable == 0xFFFF || pin_level(board_, write_enable) == 1);
        if (!complete) {
            s["stored"] = false;
            board_.trace("register_block_refused", {{"device", name()}});
            return;
        }
        std::vector<uint8_t> block(map_.block_size);
        for (size_t i = 0; i < block.size(); ++i)
            block[i] = static_cast<uint8_t>(std::stoi(data.substr(2 * i, 2), nullptr, 16));
        size_t address = s["address"].get<size_t>();
        cells_.put(address, block.data(), block.size());
        s["stored"] = true;
        s["stored_at_ns"] = board_.now_ns() + setting(config(), "write_us", 1000) * kNsPerUs;
        board_.trace("eeprom_write",
                     {{"device", name()}, {"addr", address}, {"count", block.size()}});
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
    for (size_t i = 0; list.is_array() && i < list.size(); ++i) {
        const json &config = list[i];
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
