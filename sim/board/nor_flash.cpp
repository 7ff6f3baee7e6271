#include "board/nor_flash.h"

#include "board/control.h"
#include "board/stored_cells.h"

#include <algorithm>

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
constexpr uint64_t kWordProgramNs = 8000;
constexpr uint64_t kSectorEraseNs = 500000000;
constexpr uint64_t kRefusedOpNs = 100000; // a program or erase of protected sectors only
constexpr uint64_t kStatusReadNs = 1000;

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
    }

    std::string register_name(uint32_t address) const override {
        if (address - base_ == kVidOnRegister)
            return "VID_ON";
        return address - base_ == kVidOffRegister ? "VID_OFF" : "";
    }

private:
    uint32_t base_;
};

// The chip's command interface: one 16-bit bus cycle at a time, its mode kept in "nor_bus".
class NorChip {
public:
    explicit NorChip(Board &board) : board_(board) { settle(); }

    uint16_t read(uint32_t at) {
        std::string m = mode();
        if (m == "busy")
            return status(at);
        if (m == "autoselect")
            return autoselect_word(at);
        if (m == "protect")
            return verify_word(at);
        return array_word(at);
    }

    void write(uint32_t at, uint16_t data) {
        uint32_t word = (at >> 1) & 0x7FF;
        std::string m = mode();
        uint8_t command = data & 0xFF; // commands are on the low byte
        if (m == "busy") {
            board_.trace("nor", {{"ignored", hex_text(data)}, {"addr", hex_text(at)}, {"in", m}});
        } else if (m == "program") {
            program_word(at, data);
        } else if (command == 0xF0) {
            set_mode("read");
        } else if ((m == "read" || m == "erase_setup") && word == 0x555 && command == 0xAA) {
            set_mode(m == "read" ? "unlock1" : "erase_unlock1");
        } else if (m == "read" && command == 0x60 && vid_ready()) {
            set_mode("protect");
        } else if ((m == "unlock1" || m == "erase_unlock1") && word == 0x2AA && command == 0x55) {
            set_mode(m == "unlock1" ? "unlock2" : "erase_unlock2");
        } else if (m == "unlock2" && word == 0x555 && unlocked_command(command)) {
        } else if (m == "erase_unlock2" && command == 0x30) {
            erase_sectors(nor_sector_of(at), nor_sector_of(at));
        } else if (m == "erase_unlock2" && word == 0x555 && command == 0x10) {
            erase_sectors(0, kSectors - 1);
        } else if (m == "protect" && (at & 6) == 4 && (command == 0x60 || command == 0x40)) {
            protect_step(at, command);
        } else {
            board_.trace("nor", {{"ignored", hex_text(data)}, {"addr", hex_text(at)}, {"in", m}});
            set_mode("read");
        }
    }

    bool reads_array() { return mode() == "read"; }

private:
    json &bus() { return bus_state(board_); }
    std::string mode() { return bus()["mode"].get<std::string>(); }

    void set_mode(const std::string &mode) {
        if (bus()["mode"] != mode)
            board_.trace("nor", {{"mode", mode}});
        bus()["mode"] = mode;
        for (const char *step : {"pulse", "verify", "busy"})
            bus().erase(step);
    }

    // The third cycle after the two unlock cycles: autoselect, program or erase setup.
    bool unlocked_command(uint8_t command) {
        if (command == 0x90)
            set_mode("autoselect");
        else if (command == 0xA0)
            set_mode("program");
        else if (command == 0x80)
            set_mode("erase_setup");
        return command == 0x90 || command == 0xA0 || command == 0x80;
    }

    // An embedded program or erase runs until its time is up; then the chip reads array again.
    void settle() {
        const json &busy = member(bus(), "busy");
        if (busy.is_object() && board_.now_ns() >= busy["until"].get<uint64_t>())
            set_mode("read");
    }

    void start_busy(const char *op, uint64_t ns, uint32_t at, uint16_t data) {
        set_mode("busy");
        bus()["busy"] = json{{"op", op},
                             {"until", board_.now_ns() + ns},
                             {"sector", nor_sector_of(at)},
                             {"data", data}};
        bus()["toggle"] = false;
    }

    // Data polling while busy: DQ7 the complement of the programmed bit 7 (0 while erasing), DQ6
    // toggling at every read, DQ3 set once an erase runs and DQ2 toggling in an erasing sector.
    // A read takes a microsecond of board time, so a poll without sleeps still ends.
    uint16_t status(uint32_t at) {
        json &busy = bus()["busy"];
        bool toggle = !member(bus(), "toggle").is_boolean() || !bus()["toggle"].get<bool>();
        bus()["toggle"] = toggle;
        board_.advance_ns(kStatusReadNs);
        uint16_t word = toggle ? 0x40 : 0;
        if (busy["op"] == "program")
            return static_cast<uint16_t>(word | (~busy["data"].get<uint16_t>() & 0x80));
        word |= 0x08;
        if (toggle && nor_sector_of(at) == busy["sector"].get<unsigned>())
            word |= 0x04;
        return word;
    }

    uint16_t autoselect_word(uint32_t at) {
        unsigned sector = nor_sector_of(at);
        uint32_t word = ((at - nor_sector_base(sector)) >> 1) & 0xFF;
        if (word == 0)
            return kManufacturerId;
        if (word == 1)
            return kDeviceId;
        return word == 2 && is_protected(board_, sector) ? 1 : 0;
    }

    // In protection mode the chip drives no array data: only the verify of the sector the last
    // 0x40 addressed, at least 1 us after it; anything else reads 0xFFFF.
    uint16_t verify_word(uint32_t at) {
        const json &verify = member(bus(), "verify");
        unsigned sector = nor_sector_of(at);
        if (!verify.is_object() || (at & 6) != 4 || verify["sector"] != sector ||
            board_.now_ns() - verify["t"].get<uint64_t>() < kVerifyNs)
            return 0xFFFF;
        return is_protected(board_, sector) ? 1 : 0;
    }

    bool vid_ready() {
        return vid_on(board_) &&
               board_.now_ns() - number_from(member(bus(), "vid_since"), 0) >= kVidSetupNs;
    }

    void protect_step(uint32_t at, uint8_t command) {
        bool unprotect = (at & 0x80) != 0; // A6
        if (command == 0x60) {
            bus()["pulse"] = json{{"t", board_.now_ns()}, {"unprotect", unprotect}};
            bus().erase("verify");
            return;
        }
        if (bus().contains("pulse"))
            end_pulse(nor_sector_of(at));
        bus()["verify"] = json{{"t", board_.now_ns()}, {"sector", nor_sector_of(at)}};
    }

    // A pulse changes protection only with VID still on and when it lasted long enough.
    void end_pulse(unsigned sector) {
        bool unprotect = bus()["pulse"]["unprotect"].get<bool>();
        uint64_t lasted = board_.now_ns() - bus()["pulse"]["t"].get<uint64_t>();
        bus().erase("pulse");
        bool done = lasted >= (unprotect ? kUnprotectPulseNs : kProtectPulseNs) && vid_on(board_);
        board_.trace("nor_pulse", {{"op", unprotect ? "unprotect" : "protect"},
                                   {"sector", sector},
                                   {"us", lasted / 1000},
                                   {"done", done}});
        if (!done)
            return;
        for (unsigned s = 0; s < kSectors; ++s) {
            if ((unprotect || s == sector) && !board_.take_fault("nor_verify", std::to_string(s)))
                set_protected(board_, s, !unprotect);
        }
        board_.save(); // protection outlives the program
    }

    // A word program clears bits only; a protected sector is left as it is.
    void program_word(uint32_t at, uint16_t data) {
        uint32_t word_at = at & ~1u;
        bool done = !is_protected(board_, nor_sector_of(word_at));
        if (done) {
            const uint8_t bytes[] = {static_cast<uint8_t>(data), static_cast<uint8_t>(data >> 8)};
            cells().program(word_at, bytes, sizeof bytes);
        }
        board_.trace("nor_program",
                     {{"addr", hex_text(word_at)}, {"value", hex_text(data)}, {"done", done}});
        start_busy("program", done ? kWordProgramNs : kRefusedOpNs, word_at, data);
    }

    // Sector or chip erase of sectors first..last; protected sectors are left as they are.
    void erase_sectors(unsigned first, unsigned last) {
        unsigned erased = 0;
        for (unsigned s = first; s <= last; ++s) {
            if (is_protected(board_, s))
                continue;
            uint32_t end = s + 1 < kSectors ? nor_sector_base(s + 1) : kNorWindows[1].size;
            cells().erase(nor_sector_base(s), end - nor_sector_base(s));
            ++erased;
        }
        board_.trace("nor_erase", {{"first", first}, {"last", last}, {"erased", erased}});
        start_busy("erase", erased != 0 ? erased * kSectorEraseNs : kRefusedOpNs,
                   nor_sector_base(first), 0);
    }

    StoredCells cells() {
        return StoredCells(board_, board_.file("mtd/" + nor_partition(board_) + ".bin"),
                           kNorWindows[1].size);
    }

    uint16_t array_word(uint32_t at) {
        uint8_t bytes[2];
        cells().read(at & ~1u, bytes, sizeof bytes);
        return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
    }

    Board &board_;
};

// The flash on its 16-bit bus: every access is one or two 16-bit bus cycles.
class NorFlash : public RegisterSpace {
public:
    NorFlash(Board &board, const SocWindow &window)
        : RegisterSpace(board, window.name), base_(window.phys_base) {}

protected:
    uint32_t load(uint32_t address) override {
        uint32_t at = address - base_;
        NorChip chip(board_);
        uint16_t low = chip.read(at);
        return low | (static_cast<uint32_t>(chip.read(at + 2)) << 16);
    }
    void store(uint32_t address, uint32_t value) override {
        uint32_t at = address - base_;
        NorChip(board_).write(at, static_cast<uint16_t>(value));
        NorChip(board_).write(at + 2, static_cast<uint16_t>(value >> 16));
    }
    uint32_t load_narrow(uint32_t address, unsigned width) override {
        uint32_t at = address - base_;
        uint16_t word = NorChip(board_).read(at & ~1u);
        return width == 1 ? (word >> (8 * (at & 1))) & 0xFF : word;
    }
    void store_narrow(uint32_t address, uint32_t value, unsigned width) override {
        uint32_t at = address - base_;
        unsigned lane = width == 1 ? 8 * (at & 1) : 0; // a byte at an odd address: bits 15-8
        NorChip(board_).write(at & ~1u, static_cast<uint16_t>(value << lane));
    }

private:
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

bool nor_read_through_chip(Board &board, std::string_view partition, uint64_t offset, uint8_t *out,
                           size_t count) {
    if (partition != nor_partition(board) || NorChip(board).reads_array())
        return false;
    for (size_t i = 0; i < count; ++i) {
        uint64_t at = offset + i;
        uint16_t word = NorChip(board).read(static_cast<uint32_t>(at & ~uint64_t{1}));
        out[i] = static_cast<uint8_t>(word >> (8 * (at & 1)));
    }
    return true;
}

std::unique_ptr<Device> open_nor_direct(Board &board, std::string_view path, int, int *err) {
    if (path != "/dev/udirect" || member(member(board.config(), "nor"), "driver") == false)
        return nullptr;
    *err = 0;
    return std::make_unique<WindowDriver>(board, kMapRequest, kNorWindows, nor_registers);
}

} // namespace tvsim
