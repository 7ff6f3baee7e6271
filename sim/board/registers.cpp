#include "board/registers.h"

#include "board/config_roms.h"

#include <optional>

namespace tvsim {

namespace {

constexpr int kBanks = 3;
constexpr int kPinsPerBank = 32;

// Models wired to the pins: told of every change of an output, asked for what they drive, for
// the level the board holds an output at from power-on, and to set up their own power-on state.
struct PinWiring {
    void (*output_changed)(Board &, int pin, int level);
    std::optional<int> (*input_level)(Board &, int pin); // none when the model drives no level
    bool (*powers_on_high)(Board &, int pin); // whether the model holds the pin high at power-on
    void (*power_on)(Board &, json &soc);
};
constexpr PinWiring kPinWiring[] = {{.output_changed = config_rom_pin_changed,
                                     .input_level = config_rom_pin_input,
                                     .powers_on_high = config_rom_pin_powers_on_high,
                                     .power_on = config_rom_power_on}};

std::optional<int> bank_at(uint32_t address) {
    for (int bank = 0; bank < kBanks; ++bank) {
        if (kGpioBankRegisters[bank] == address)
            return bank;
    }
    return std::nullopt;
}

uint32_t output_latch(Board &board, int bank) {
    const json &latches = member(soc_state(board), "gpio_out");
    return latches.is_array() && static_cast<size_t>(bank) < latches.size()
               ? static_cast<uint32_t>(number_from(latches[bank], 0))
               : 0;
}

void set_output_latch(Board &board, int bank, uint32_t value) {
    json &latches = soc_state(board)["gpio_out"];
    if (!latches.is_array() || latches.size() != kBanks)
        latches = json::array({0, 0, 0});
    latches[bank] = value;
}

// A bank's output latch as the board comes up: 0, except where a wired model holds a pin high.
uint32_t power_on_latch(Board &board, int bank) {
    uint32_t latch = 0;
    for (int bit = 0; bit < kPinsPerBank; ++bit) {
        for (const PinWiring &wiring : kPinWiring) {
            if (wiring.powers_on_high(board, bank * kPinsPerBank + bit))
                latch |= 1u << bit;
        }
    }
    return latch;
}

// The level a pin is driven to from outside (board.json before the wired models), or none when
// nothing drives it.
std::optional<int> input_level(Board &board, int pin) {
    const json &level =
        member(member(member(board.config(), "soc"), "pin_inputs"), std::to_string(pin));
    if (!level.is_null())
        return number_from(level, 0) != 0 ? 1 : 0;
    for (const PinWiring &wiring : kPinWiring) {
        if (std::optional<int> driven = wiring.input_level(board, pin))
            return driven;
    }
    return std::nullopt;
}

// The pins of a bank that are driven from outside, and their levels.
void bank_inputs(Board &board, int bank, uint32_t *mask, uint32_t *levels) {
    *mask = 0;
    *levels = 0;
    for (int bit = 0; bit < kPinsPerBank; ++bit) {
        if (std::optional<int> level = input_level(board, bank * kPinsPerBank + bit)) {
            *mask |= 1u << bit;
            *levels |= static_cast<uint32_t>(*level) << bit;
        }
    }
}

class SocRegisters : public RegisterSpace {
public:
    SocRegisters(Board &board, const SocWindow &window) : RegisterSpace(board, window.name) {}

protected:
    uint32_t load(uint32_t address) override {
        const json &soc = member(board_.config(), "soc");
        if (address == kRevisionRegister)
            return static_cast<uint32_t>(number_from(member(soc, "revision"), 0));
        if (address == kBootConfigRegister)
            return static_cast<uint32_t>(number_from(member(soc, "boot_config"), 0));
        if (std::optional<int> bank = bank_at(address)) {
            uint32_t mask, levels;
            bank_inputs(board_, *bank, &mask, &levels);
            return (output_latch(board_, *bank) & ~mask) | levels;
        }
        return static_cast<uint32_t>(
            number_from(member(member(soc_state(board_), "registers"), hex_text(address, 8)), 0));
    }

    void store(uint32_t address, uint32_t value) override {
        if (address == kRevisionRegister || address == kBootConfigRegister)
            return; // read-only
        std::optional<int> bank = bank_at(address);
        if (!bank) {
            soc_state(board_)["registers"][hex_text(address, 8)] = value;
            return;
        }
        uint32_t inputs, levels;
        bank_inputs(board_, *bank, &inputs, &levels);
        uint32_t changed = (output_latch(board_, *bank) ^ value) & ~inputs; // outputs only
        set_output_latch(board_, *bank, value);
        for (int bit = 0; bit < kPinsPerBank; ++bit) {
            if (((changed >> bit) & 1) == 0)
                continue;
            int pin = *bank * kPinsPerBank + bit;
            int level = static_cast<int>((value >> bit) & 1);
            board_.trace("pin", {{"pin", pin}, {"level", level}});
            for (const PinWiring &wiring : kPinWiring)
                wiring.output_changed(board_, pin, level);
        }
    }

    std::string register_name(uint32_t address) const override {
        if (address == kRevisionRegister)
            return "REVID";
        if (address == kBootConfigRegister)
            return "CCFG";
        if (std::optional<int> bank = bank_at(address))
            return "GPIO" + std::to_string(*bank);
        return "";
    }
};

} // namespace

json &soc_state(Board &board) {
    json &soc = board.state()["soc"];
    if (soc.is_object())
        return soc;
    soc = json{{"gpio_out", json::array()}};
    for (int bank = 0; bank < kBanks; ++bank)
        soc["gpio_out"].push_back(power_on_latch(board, bank));
    for (const PinWiring &wiring : kPinWiring)
        wiring.power_on(board, soc);
    return soc;
}

std::unique_ptr<RegisterSpace> soc_registers(Board &board, const SocWindow &window) {
    return std::make_unique<SocRegisters>(board, window);
}

int pin_level(Board &board, int pin) {
    if (pin < 0 || pin >= kBanks * kPinsPerBank)
        return 0;
    if (std::optional<int> level = input_level(board, pin))
        return *level;
    return static_cast<int>((output_latch(board, pin / kPinsPerBank) >> (pin % kPinsPerBank)) & 1);
}

json default_soc_config() {
    return json{
        {"revision", "0x00000000"}, {"boot_config", "0x00000000"}, {"pin_inputs", json::object()}};
}

} // namespace tvsim
