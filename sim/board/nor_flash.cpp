#include "board/nor_flash.h"

#include "board/control.h"
#include "board/stored_cells.h"

#include <algorithm>
#include <cstdio>

namespace tvsim {

namespace {

constexpr unsigned long kMapRequest = 0x30;
constexpr SocWindow kNorWindows[] = {{"PIO", 0x01880F00, 0x1000}, {"NOR", 0x01FC0000, 0x100000}};
constexpr uint32_t kVidOnRegister = 0x590;
constexpr uint32_t kVidOffRegister = 0x594;

constexpr unsigned kSectors = 19;
constexpr uint16_t kManufacturerId = 0x1C;
constexpr uint16_t kDeviceId = 0x225B;

constexpr uint64_t kVidSetupNs = 1000;
constexpr uint64_t kProtectPulseNs = 150000;
constexpr uint64_t kUnprotectPulseNs = 15000000;
constexpr uint64_t kVerifyNs = 1000;

// The sector of the bottom-boot layout that holds byte offset (16, 8, 8 and 32 KiB, then
// fifteen of 64 KiB), and a sector's first byte.
unsigned nor_sector_of(uint32_t offset) {
    if (offset >= 0x10000)
        return std::min(4 + (offset - 0x10000) / 0x10000, kSectors - 1);
    if (offset >= 0x8000)
        return 3;
    return offset < 0x4000 ? 0 : 1 + (offset - 0x4000) / 0x2000;
}

uint32_t nor_sector_base(unsigned sector) {
    static constexpr uint32_t kBoot[] = {0x0, 0x4000, 0x6000, 0x8000};
    return sector < 4 ? kBoot[sector] : 0x10000 * (sector - 3);
}

// Volatile: lost at power-off (state.json "nor_bus").
json &bus_state(Board &board) {
    json &bus = board.state()["nor_bus"];
    if (!bus.is_object())
        bus = json{{"mode", "read"}, {"vid", 0}};
    return bus;
}

// Kept by the flash: state.json "nor" "protected", first from board.json.
json &protected_sectors(Board &board) {
    json &nor = board.state()["nor"];
    if (!nor.is_object() || !nor["protected"].is_array()) {
        const json &factory = member(member(board.config(), "nor"), "protected");
        nor = json{{"protected", factory.is_array() ? factory : json::array()}};
    }
    return nor["protected"];
}

bool is_protected(Board &board, unsigned sector) {
    for (const json &s : protected_sectors(board)) {
        if (number_from(s, kSectors) == sector)
            return true;
    }
    return false;
}

void set_protected(Board &board, unsigned sector, bool on) {
    std::vector<unsigned> list;
    for (const json &s : protected_sectors(board)) {
        if (number_from(s, kSectors) != sector)
            list.push_back(static_cast<unsigned>(number_from(s, kSectors)));
    }
    if (on)
        list.push_back(sector);
    std::sort(list.begin(), list.end());
    protected_sectors(board) = list;
}

// The MTD partition that holds the flash's array.
std::string nor_partition(Board &board) {
    const json &partition = member(member(board.config(), "nor"), "partition");
    return partition.is_string() ? partition.get<std::string>() : "uboot-nor";
}

bool vid_on(Board &board) {
    return member(bus_state(board), "vid") == 1;
}

std::string hex(uint32_t value) {
    char text[12];
    snprintf(text, sizeof text, "0x%x", value);
    return text;
}

// The PIO block in front of the flash: the VID switch.
class NorPio : public RegisterSpace {
public:
    NorPio(Board &board, const SocWindow &window)
        : RegisterSpace(board, window.name), base_(window.phys_base) {}

protected:
    uint32_t load(uint32_t) override { return 0; }

    void store(uint32_t address, uint32_t value) override {
        uint32_t reg = address - base_;
        if ((value & 1) == 0 || (reg != kVidOnRegister && reg != kVidOffRegister))
            return;
        bool on = reg == kVidOnRegister;
        if (board_.take_fault("nor_vid", on ? "on" : "off") || vid_on(board_) == on)
            return;
        json &bus = bus_state(board_);
        bus["vid"] = on ? 1 : 0;
        bus["vid_since"] = board_.now_ns();
        board_.trace("vid", {{"level", on ? 1 : 0}});
        if (!on && bus["mode"] == "protect")
            bus["mode"] = "read"; // protection mode needs VID throughout
    }

    std::string register_name(uint32_t address) const override {
        if (address - base_ == kVidOnRegister)
            return "VID_ON";
        return address - base_ == kVidOffRegister ? "VID_OFF" : "";
    }

private:
    uint32_t base_;
};

// The flash on its 16-bit bus: every access is one or two 16-bit bus cycles.
class NorFlash : public RegisterSpace {
public:
    NorFlash(Board &board, const SocWindow &window)
        : RegisterSpace(board, window.name), base_(window.phys_base) {}

protected:
    uint32_t load(uint32_t address) override {
        uint32_t at = address - base_;
        return cycle_read(at) | (static_cast<uint32_t>(cycle_read(at + 2)) << 16);
    }
    void store(uint32_t address, uint32_t value) override {
        uint32_t at = address - base_;
        cycle_write(at, static_cast<uint16_t>(value));
        cycle_write(at + 2, static_cast<uint16_t>(value >> 16));
    }
    uint32_t load_narrow(uint32_t address, unsigned width) override {
        uint32_t at = address - base_;
        uint16_t word = cycle_read(at & ~1u);
        return width == 1 ? (word >> (8 * (at & 1))) & 0xFF : word;
    }
    void store_narrow(uint32_t address, uint32_t value, unsigned width) override {
        uint32_t at = address - base_;
        unsigned lane = width == 1 ? 8 * (at & 1) : 0; // a byte at an odd address: bits 15-8
        cycle_write(at & ~1u, static_cast<uint16_t>(value << lane));
    }

private:
    std::string mode() { return bus_state(board_)["mode"].get<std::string>(); }

    void set_mode(const std::string &mode) {
        json &bus = bus_state(board_);
        if (bus["mode"] != mode)
            board_.trace("nor", {{"mode", mode}});
        bus["mode"] = mode;
        bus.erase("pulse");
        bus.erase("verify");
    }

    void ignore(uint32_t at, uint16_t data) {
        board_.trace("nor", {{"ignored", hex(data)}, {"addr", hex(at)}, {"in", mode()}});
        set_mode("read");
    }

    uint16_t cycle_read(uint32_t at) {
        std::string m = mode();
        unsigned sector = nor_sector_of(at);
        if (m == "autoselect") {
            uint32_t word = ((at - nor_sector_base(sector)) >> 1) & 0xFF;
            if (word == 0)
                return kManufacturerId;
            if (word == 1)
                return kDeviceId;
            return word == 2 && is_protected(board_, sector) ? 1 : 0;
        }
        const json &verify = member(bus_state(board_), "verify");
        if (m == "protect" && verify.is_number() && (at & 6) == 4) {
            if (board_.now_ns() - verify.get<uint64_t>() < kVerifyNs)
                return 0xFFFF;
            return is_protected(board_, sector) ? 1 : 0;
        }
        return array_word(at);
    }

    void cycle_write(uint32_t at, uint16_t data) {
        uint32_t word = (at >> 1) & 0x7FF;
        std::string m = mode();
        data &= 0xFF; // commands are on the low byte
        if (data == 0xF0) {
            set_mode("read");
        } else if (m == "read" && word == 0x555 && data == 0xAA) {
            set_mode("unlock1");
        } else if (m == "read" && data == 0x60 && vid_ready()) {
            set_mode("protect");
        } else if (m == "unlock1" && word == 0x2AA && data == 0x55) {
            set_mode("unlock2");
        } else if (m == "unlock2" && word == 0x555 && data == 0x90) {
            set_mode("autoselect");
        } else if (m == "protect" && (at & 6) == 4 && (data == 0x60 || data == 0x40)) {
            protect_step(at, data);
        } else {
            ignore(at, data);
        }
    }

    bool vid_ready() {
        const json &bus = bus_state(board_);
        return vid_on(board_) &&
               board_.now_ns() - number_from(member(bus, "vid_since"), 0) >= kVidSetupNs;
    }

    void protect_step(uint32_t at, uint16_t data) {
        json &bus = bus_state(board_);
        bool unprotect = (at & 0x80) != 0; // A6
        if (data == 0x60) {
            bus["pulse"] = json{{"t", board_.now_ns()}, {"unprotect", unprotect}};
            bus.erase("verify");
            return;
        }
        if (bus.contains("pulse"))
            end_pulse(nor_sector_of(at));
        bus["verify"] = board_.now_ns();
    }

    void end_pulse(unsigned sector) {
        json &bus = bus_state(board_);
        bool unprotect = bus["pulse"]["unprotect"].get<bool>();
        uint64_t lasted = board_.now_ns() - bus["pulse"]["t"].get<uint64_t>();
        bus.erase("pulse");
        bool long_enough = lasted >= (unprotect ? kUnprotectPulseNs : kProtectPulseNs);
        board_.trace("nor_pulse", {{"op", unprotect ? "unprotect" : "protect"},
                                   {"sector", sector},
                                   {"us", lasted / 1000},
                                   {"done", long_enough}});
        if (!long_enough)
            return;
        for (unsigned s = 0; s < kSectors; ++s) {
            if ((unprotect || s == sector) && !board_.take_fault("nor_verify", std::to_string(s)))
                set_protected(board_, s, !unprotect);
        }
        board_.save(); // protection outlives the program
    }

    uint16_t array_word(uint32_t at) {
        uint8_t bytes[2];
        StoredCells(board_, board_.file("mtd/" + nor_partition(board_) + ".bin"),
                    kNorWindows[1].size)
            .read(at, bytes, sizeof bytes);
        return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
    }

    uint32_t base_;
};

std::unique_ptr<RegisterSpace> nor_registers(Board &board, const SocWindow &window) {
    if (window.phys_base == kNorWindows[0].phys_base)
        return std::make_unique<NorPio>(board, window);
    return std::make_unique<NorFlash>(board, window);
}

} // namespace

uint64_t nor_protected_from(Board &board, std::string_view partition, uint64_t offset,
                            uint64_t length) {
    uint64_t end = offset + length;
    if (length == 0 || partition != nor_partition(board))
        return end;
    for (unsigned s = nor_sector_of(static_cast<uint32_t>(offset));
         s <= nor_sector_of(static_cast<uint32_t>(end - 1)); ++s) {
        if (is_protected(board, s))
            return std::max<uint64_t>(offset, nor_sector_base(s));
    }
    return end;
}

std::unique_ptr<Device> open_nor_direct(Board &board, std::string_view path, int, int *err) {
    if (path != "/dev/udirect" || member(member(board.config(), "nor"), "driver") == false)
        return nullptr;
    *err = 0;
    return std::make_unique<WindowDriver>(board, kMapRequest, kNorWindows, nor_registers);
}

} // namespace tvsim
