#include "board/microcontroller.h"

#include "board/device.h"
#include "board/stored_cells.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace tvsim {

namespace {

constexpr uint64_t kBitsPerByte = 10; // start bit, 8 data bits, stop bit
constexpr size_t kBankSize = 98304;
constexpr size_t kBlockSize = 64;
// Where a firmware image keeps its version byte, from the start of its bank.
constexpr size_t kVersionOffset = 0x100;
constexpr uint8_t kStart = 0x3A;
constexpr uint8_t kAck = 0x30;
constexpr uint8_t kNak = 0x31;
// The time byte that the guard-dog stop (mode 0) carries.
constexpr uint8_t kGuardDogStopTime = 0x78;
constexpr unsigned long kRateRequest = 2001;

using Bytes = std::vector<uint8_t>;

// One command the microcontroller understands: its parameter count and its reply's length.
struct Command {
    uint8_t code;
    const char *name;
    size_t params;
    size_t reply_length;
};

constexpr Command kCommands[] = {
    {0x21, "status", 0, 22},      {0x28, "version", 0, 6},      {0x83, "micro_id", 0, 6},
    {0x16, "set_port", 2, 5},     {0x18, "clear_port", 2, 5},   {0xC1, "writing_mode", 1, 5},
    {0x23, "guard_dog", 2, 5},    {0xC3, "erase", 1, 5},        {0xC0, "write_flash", 67, 5},
    {0xC2, "checksum", 1, 7},     {0xC4, "close_write", 0, 5},  {0x2B, "power_on", 0, 5},
    {0x2C, "power_off", 0, 5},    {0x06, "picture_mute", 1, 5}, {0xB7, "eeprom_write", 67, 6},
    {0xB8, "eeprom_read", 4, 70},
};
constexpr Command kUnknownCommand = {0, "unknown", 0, 5};

const Command &command_of(uint8_t code) {
    for (const Command &c : kCommands) {
        if (c.code == code)
            return c;
    }
    return kUnknownCommand;
}

uint8_t checksum(const uint8_t *bytes, size_t count) {
    uint8_t sum = 0;
    for (size_t i = 0; i < count; ++i)
        sum = static_cast<uint8_t>(sum + bytes[i]);
    return sum;
}

const json &settings(const Board &board) {
    return member(board.config(), "microcontroller");
}

// The settings of a new board; a board.json that leaves one out has it too.
const json &defaults() {
    static const json values = default_microcontroller_config();
    return values;
}

uint64_t setting_in(const json &config, const char *key) {
    const json &value = member(config, key);
    return value.is_number_unsigned() || value.is_number_integer()
               ? value.get<uint64_t>()
               : defaults().at(key).get<uint64_t>();
}

uint64_t setting(const Board &board, const char *key) {
    return setting_in(settings(board), key);
}

// The memories and where they live in the board directory; a flash bank has a fixed size.
struct MemoryLayout {
    const char *file;
    const char *size_key;
};
constexpr MemoryLayout kBank1 = {"tvm/bank1.bin", nullptr};
constexpr MemoryLayout kBank2 = {"tvm/bank2.bin", nullptr};
constexpr MemoryLayout kOwnEeprom = {"tvm/eeprom.bin", "eeprom_size"};
constexpr MemoryLayout kFerundEeprom = {"tvm/ferund.bin", "ferund_size"};

size_t memory_size(const json &config, const MemoryLayout &layout) {
    return layout.size_key == nullptr ? kBankSize : setting_in(config, layout.size_key);
}

// One memory of the microcontroller.
class Memory : public StoredCells {
public:
    Memory(Board &board, const MemoryLayout &layout)
        : StoredCells(board, board.file(layout.file), memory_size(settings(board), layout)) {}
};

// What a command did: its acknowledge byte (reply byte 3), the bytes of its reply from byte 4
// on, how long the microcontroller is busy before it answers, and how many times it sends that
// reply, busy_ns apart (a busy EEPROM reports again until the board sends anew).
struct Outcome {
    uint8_t ack = kAck;
    Bytes payload;
    uint64_t busy_ns = 0;
    size_t copies = 1;
};

Outcome refused() {
    return Outcome{kNak, {}, 0};
}

// A reply byte on its way back, and when it has arrived in the driver.
struct WireByte {
    uint8_t value;
    uint64_t arrives_ns;
};

class Microcontroller : public Device {
public:
    explicit Microcontroller(Board &board)
        : Device(board), bank1_(board, kBank1), bank2_(board, kBank2), eeprom_(board, kOwnEeprom),
          ferund_(board, kFerundEeprom), link_rate_(setting(board, "driver_rate")) {}

    ssize_t write(const void *buf, size_t count) override {
        const uint8_t *bytes = static_cast<const uint8_t *>(buf);
        board_.advance_ns(count * byte_ns());
        if (link_rate_ != setting(board_, "rate")) {
            board_.trace("uart_garbled",
                         {{"bytes", hex_bytes(bytes, count)}, {"rate", link_rate_}});
            return static_cast<ssize_t>(count);
        }
        received_.insert(received_.end(), bytes, bytes + count);
        take_frames();
        return static_cast<ssize_t>(count);
    }

    // Waits until count bytes have arrived or the driver's time-out passes, and returns what
    // has arrived by then. Opened with O_NONBLOCK it does not wait: it returns what has arrived
    // already, or fails with EAGAIN when nothing has.
    ssize_t read(void *buf, size_t count) override {
        uint64_t now = board_.now_ns();
        bool nonblocking = (open_flags() & O_NONBLOCK) != 0;
        uint64_t deadline = nonblocking ? now : now + setting(board_, "read_timeout_ms") * kNsPerMs;
        uint8_t *out = static_cast<uint8_t *>(buf);
        size_t got = 0;
        uint64_t last = now;
        while (got < count && !pending_.empty() && pending_.front().arrives_ns <= deadline) {
            out[got++] = pending_.front().value;
            last = std::max(last, pending_.front().arrives_ns);
            pending_.pop_front();
        }
        board_.advance_ns(last - now); // the reply on its way
        if (got < count) {
            board_.pass_ns(deadline - last); // the driver's time-out running out
            board_.trace("uart_read", {{"asked", count}, {"got", got}});
        }
        if (got == 0 && nonblocking && count > 0) {
            errno = EAGAIN;
            return -1;
        }
        return static_cast<ssize_t>(got);
    }

    int ioctl(unsigned long request, uintptr_t arg) override {
        if (request != kRateRequest)
            return Device::ioctl(request, arg);
        link_rate_ = static_cast<uint32_t>(arg);
        board_.trace("uart_rate", {{"rate", link_rate_}});
        return 0;
    }

private:
    uint64_t byte_ns() const {
        return link_rate_ == 0 ? 0 : kBitsPerByte * kNsPerSecond / link_rate_;
    }

    json &state() {
        json &s = board_.state()["microcontroller"];
        if (!s.is_object())
            s = json::object();
        return s;
    }
    bool flag(const char *key) { return state().value(key, false); }
    // The bank named in board.json, until a power cycle has started another one.
    int running_bank() {
        return state().value("running_bank", static_cast<int>(setting(board_, "running_bank")));
    }

    // The version the running firmware reports: board.json's for the firmware the board was
    // made with; a firmware written since carries its own at version_offset of its bank.
    uint8_t running_version() {
        int number = running_bank();
        const json &rewritten = member(state(), "rewritten_banks");
        if (!rewritten.is_array() ||
            std::find(rewritten.begin(), rewritten.end(), number) == rewritten.end())
            return static_cast<uint8_t>(setting(board_, "software_version"));
        return bank(number).get(setting(board_, "version_offset"));
    }

    Memory &bank(int number) { return number == 2 ? bank2_ : bank1_; }
    uint32_t bank_base(int number) const {
        const json &bases = member(settings(board_), "bank_base");
        size_t i = static_cast<size_t>(number - 1);
        if (bases.is_array() && i < bases.size() && bases[i].is_number())
            return bases[i].get<uint32_t>();
        return defaults().at("bank_base").at(i).get<uint32_t>();
    }

    // The power commands are sent as 5 bytes: their 4-byte frame and a 0x00 after it.
    static bool padded(uint8_t code) { return code == 0x2B || code == 0x2C; }

    // Splits what has arrived into frames. The receiver never searches for a start byte: a frame
    // begins with the byte after the last frame, whatever it is, and its byte 1 gives its
    // length, so a stray byte spoils the frame after it and whatever that frame's length takes
    // in. A frame that must be followed by a pad byte is taken only once that byte has arrived,
    // and only when it is 0x00.
    void take_frames() {
        for (;;) {
            if (!received_.empty() && received_[0] != kStart && !out_of_step_) {
                board_.trace("uart_out_of_step", {{"byte", hex_bytes(received_.data(), 1)}});
                out_of_step_ = true;
            }
            if (received_.size() < 3)
                return;
            size_t length = size_t{received_[1]} + 2;
            size_t pad = padded(received_[2]) ? 1 : 0;
            if (received_.size() < length + pad)
                return;
            Bytes frame(received_.begin(), received_.begin() + static_cast<long>(length + pad));
            received_.erase(received_.begin(), received_.begin() + static_cast<long>(length + pad));
            bool pad_ok = pad == 0 || frame.back() == 0x00;
            frame.resize(length);
            out_of_step_ = false;
            if (frame[0] != kStart || frame[1] < 2 || !pad_ok ||
                checksum(frame.data(), length - 1) != frame.back()) {
                board_.trace("uart_bad_frame", {{"bytes", hex_bytes(frame.data(), frame.size())}});
                continue;
            }
            handle(frame);
        }
    }

    void handle(const Bytes &frame) {
        const Command &command = command_of(frame[2]);
        board_.trace("uart_frame",
                     {{"cmd", command.name}, {"bytes", hex_bytes(frame.data(), frame.size())}});
        const uint8_t *params = frame.data() + 3;
        size_t count = frame.size() - 4;
        watch_guard_dog();
        Outcome outcome;
        if (const json *f = board_.take_fault("uart_nak", command.name)) {
            outcome.ack = static_cast<uint8_t>(f->value("ack", int{kNak}));
        } else if (&command == &kUnknownCommand || count != command.params) {
            outcome = refused();
        } else {
            outcome = execute(command.code, params);
        }
        send(command, outcome);
    }

    // The reply of the command's length: start byte, length, code, acknowledge, payload, sum.
    static Bytes reply_to(const Command &command, const Outcome &outcome) {
        Bytes reply(command.reply_length, 0);
        reply[0] = kStart;
        reply[1] = static_cast<uint8_t>(reply.size() - 2);
        reply[2] = command.code;
        reply[3] = outcome.ack;
        for (size_t i = 0; i < outcome.payload.size() && 4 + i < reply.size() - 1; ++i)
            reply[4 + i] = outcome.payload[i];
        reply.back() = checksum(reply.data(), reply.size() - 1);
        return reply;
    }

    // Lets the faults spoil the reply and puts it on the wire after the microcontroller's own
    // time; replies leave one after another, never overtaking. A late byte arrives just after
    // the read time-out of a read that began when the frame was taken.
    void send(const Command &command, const Outcome &outcome) {
        Bytes reply = reply_to(command, outcome);
        uint64_t start = std::max(board_.now_ns(), busy_until_) +
                         setting(board_, "reply_delay_us") * kNsPerUs + outcome.busy_ns;
        busy_until_ = start;
        json event{{"cmd", command.name}};
        if (board_.take_fault("uart_no_reply", command.name)) {
            event["dropped"] = true;
            board_.trace("uart_reply", event);
            return;
        }
        if (const json *f = board_.take_fault("uart_short_reply", command.name))
            reply.resize(std::min(reply.size(), f->value("bytes", reply.size() - 1)));
        if (board_.take_fault("uart_bad_checksum", command.name))
            reply.back() = static_cast<uint8_t>(reply.back() + 1);
        uint64_t late = setting(board_, "read_timeout_ms") * kNsPerMs + kNsPerMs;
        if (board_.take_fault("uart_late_reply", command.name))
            start += late;
        size_t in_time = reply.size(); // the bytes before the split
        if (const json *f = board_.take_fault("uart_split_reply", command.name)) {
            in_time = std::min(reply.size() - 1, f->value("bytes", reply.size() / 2));
            event["split_after"] = in_time;
        }
        uint64_t gap = outcome.busy_ns + reply.size() * byte_ns();
        for (size_t copy = 0; copy < outcome.copies; ++copy) {
            for (size_t i = 0; i < reply.size(); ++i) {
                uint64_t arrives = start + copy * gap + (i + 1) * byte_ns();
                pending_.push_back({reply[i], i < in_time ? arrives : arrives + late});
                busy_until_ = std::max(busy_until_, pending_.back().arrives_ns);
            }
        }
        event["bytes"] = hex_bytes(reply.data(), reply.size());
        if (outcome.copies > 1)
            event["copies"] = outcome.copies;
        board_.trace("uart_reply", event);
    }

    Outcome execute(uint8_t code, const uint8_t *p) {
        switch (code) {
        case 0x21:
            return status();
        case 0x28:
            return Outcome{kAck, {running_version()}};
        case 0x83:
            return Outcome{kAck, {static_cast<uint8_t>(setting(board_, "micro_id"))}};
        case 0x16:
        case 0x18:
            return set_port(code == 0x16, p[0], p[1]);
        case 0xC1:
            return writing_mode(p[0]);
        case 0x23:
            return set_guard_dog(p[0], p[1]);
        case 0xC3:
            return erase(p[0]);
        case 0xC0:
            return write_flash(static_cast<uint32_t>(p[0] << 16 | p[1] << 8 | p[2]), p + 3);
        case 0xC2:
            return bank_checksum(p[0]);
        case 0xC4:
            return close_write();
        case 0x2B:
        case 0x2C:
            state()["power"] = code == 0x2B;
            state()["picture_mute"] = false;
            return Outcome{};
        case 0x06:
            return picture_mute(p[0]);
        case 0xB7:
            return eeprom_write(p[0], static_cast<size_t>(p[1] << 8 | p[2]), p + 3);
        case 0xB8:
            return p[0] == 0 ? eeprom_read(p[1], static_cast<size_t>(p[2] << 8 | p[3]))
                             : refused(); // only its own EEPROM can be read
        default:
            return refused();
        }
    }

    Outcome status() {
        Outcome o;
        o.payload.assign(17, 0);
        o.payload[8] = running_bank() == 2 ? 0x10 : 0x00; // reply byte 12
        return o;
    }

    Outcome set_port(bool set, uint8_t port, uint8_t bits) {
        json &ports = state()["ports"];
        if (!ports.is_object()) // the first port command of a power cycle
            ports = json::object();
        std::string key = std::to_string(port);
        int value = ports.value(key, 0);
        ports[key] = set ? (value | bits) : (value & ~bits);
        return Outcome{};
    }

    Outcome writing_mode(uint8_t on) {
        if (on != 1)
            return refused();
        state()["writing_mode"] = true;
        state()["write_closed"] = false;
        state()["erased_bank"] = 0;
        // Writing mode starts the guard dog afresh with its power-up time: a time set or a stop
        // given before it does not carry over.
        state().erase("guard_dog");
        state()["guard_dog_since_ns"] = board_.now_ns();
        return Outcome{};
    }

    // The guard dog runs from power-up with the board's default time; mode 1 sets its time in
    // units of 100 ms, mode 0 (with the time byte 0x78 and no other) stops it.
    Outcome set_guard_dog(uint8_t mode, uint8_t tenths) {
        if (mode > 1 || (mode == 0 && tenths != kGuardDogStopTime))
            return refused();
        state()["guard_dog"] = {{"on", mode == 1}, {"ms", uint64_t{tenths} * 100}};
        state()["guard_dog_since_ns"] = board_.now_ns();
        return Outcome{};
    }

    // While writing mode leaves its main loop idle, nothing feeds the guard dog: once its time
    // has passed the microcontroller resets, which ends writing mode (and everything else a
    // power cycle ends) and starts it again from the bank it runs.
    void watch_guard_dog() {
        if (!flag("writing_mode"))
            return;
        const json &dog = member(state(), "guard_dog");
        bool on = dog.is_object() ? dog.value("on", true) : true;
        uint64_t ms =
            dog.is_object() ? dog.value("ms", uint64_t{0}) : setting(board_, "guard_dog_ms");
        uint64_t since = state().value("guard_dog_since_ns", uint64_t{0});
        if (!on || board_.now_ns() < since + ms * kNsPerMs)
            return;
        board_.trace("guard_dog_reset", {{"after_ms", ms}});
        power_cycle_microcontroller(board_);
    }

    // Only the bank that is not running can be erased, and only in writing mode.
    Outcome erase(uint8_t number) {
        if (!flag("writing_mode") || (number != 1 && number != 2) || number == running_bank())
            return refused();
        bank(number).erase();
        state()["erased_bank"] = number;
        json &rewritten = state()["rewritten_banks"];
        if (!rewritten.is_array() ||
            std::find(rewritten.begin(), rewritten.end(), number) == rewritten.end())
            rewritten.push_back(number);
        return Outcome{kAck, {}, setting(board_, "erase_ms") * kNsPerMs};
    }

    // Blocks go to the bank erased last, at their address less the bank's base.
    Outcome write_flash(uint32_t address, const uint8_t *data) {
        int number = state().value("erased_bank", 0);
        if (!flag("writing_mode") || number == 0 || address < bank_base(number) ||
            address - bank_base(number) + kBlockSize > kBankSize)
            return refused();
        bank(number).program(address - bank_base(number), data, kBlockSize);
        uint64_t write_ns = setting(board_, "block_write_us") * kNsPerUs;
        state()["flash_settled_ns"] =
            board_.now_ns() + write_ns + setting(board_, "checksum_settle_ms") * kNsPerMs;
        return Outcome{kAck, {}, write_ns};
    }

    // The sum is there only once the flash has settled after the last block written; a query
    // before that is refused.
    Outcome bank_checksum(uint8_t number) {
        if (number != 1 && number != 2)
            return refused();
        uint64_t settled = state().value("flash_settled_ns", uint64_t{0});
        if (board_.now_ns() < settled) {
            board_.trace("checksum_unsettled",
                         {{"ms_left", (settled - board_.now_ns()) / kNsPerMs}});
            return refused();
        }
        Bytes cells(kBankSize);
        bank(number).read(0, cells.data(), cells.size());
        uint16_t sum = 0;
        for (uint8_t byte : cells)
            sum = static_cast<uint16_t>(sum + byte);
        if (const json *f = board_.take_fault("checksum_differs", "checksum"))
            sum = static_cast<uint16_t>(sum + f->value("delta", 1));
        return Outcome{kAck, {static_cast<uint8_t>(sum >> 8), static_cast<uint8_t>(sum)}};
    }

    // A close that repeats the one that ended writing mode (its reply was lost) is acknowledged
    // again without effect; outside writing mode any other close is refused, and so is a close
    // of a writing mode that erased nothing.
    Outcome close_write() {
        if (!flag("writing_mode"))
            return flag("write_closed") ? Outcome{} : refused();
        int erased = state().value("erased_bank", 0);
        if (erased == 0)
            return refused();
        state()["writing_mode"] = false;
        state()["write_closed"] = true;
        state()["erased_bank"] = 0;
        state()["boot_bank"] = erased; // starts from the new firmware at the next power-up
        board_.save();                 // which the program's end does not decide
        return Outcome{};
    }

    Outcome picture_mute(uint8_t on) {
        if (!flag("power") || on != 1)
            return refused();
        state()["picture_mute"] = true;
        return Outcome{};
    }

    // The Ferund EEPROM is reached only while the television is on.
    Outcome eeprom_write(uint8_t target, size_t address, const uint8_t *data) {
        Memory *memory =
            target == 0 ? &eeprom_ : (target == 1 && flag("power") ? &ferund_ : nullptr);
        if (memory == nullptr || address + kBlockSize > memory->size())
            return refused();
        uint64_t write_ns = setting(board_, "eeprom_write_ms") * kNsPerMs;
        if (const json *f = board_.take_fault("eeprom_write_status", "eeprom_write"))
            return Outcome{kAck,
                           {static_cast<uint8_t>(f->value("status", 1))},
                           write_ns,
                           f->value("replies", size_t{1})};
        if (!board_.take_fault("eeprom_write_lost", "eeprom_write"))
            memory->put(address, data, kBlockSize);
        return Outcome{kAck, {0}, write_ns};
    }

    Outcome eeprom_read(uint8_t count, size_t address) {
        if (count > kBlockSize || address + count > eeprom_.size())
            return refused();
        Outcome o;
        o.payload.assign(1 + kBlockSize, 0); // byte 4, then the data from byte 5
        eeprom_.read(address, o.payload.data() + 1, count);
        return o;
    }

    Memory bank1_, bank2_, eeprom_, ferund_;
    uint64_t link_rate_;
    Bytes received_;
    std::deque<WireByte> pending_;
    uint64_t busy_until_ = 0;
    bool out_of_step_ = false; // the frame being received began with another byte than 0x3A
};

} // namespace

json default_microcontroller_config() {
    return json{{"rate", 128906},         {"driver_rate", 115200},
                {"read_timeout_ms", 500}, {"running_bank", 1},
                {"software_version", 16}, {"version_offset", kVersionOffset},
                {"micro_id", 33},         {"bank_base", {0x10000, 0x30000}},
                {"eeprom_size", 32768},   {"ferund_size", 32768},
                {"reply_delay_us", 200},  {"erase_ms", 300},
                {"block_write_us", 1000}, {"eeprom_write_ms", 5},
                {"guard_dog_ms", 2000},   {"checksum_settle_ms", 3000}};
}

bool create_microcontroller_files(const std::string &board_dir, const json &config) {
    std::error_code ec;
    fs::create_directories(fs::path(board_dir) / "tvm", ec);
    bool ok = !ec;
    for (const MemoryLayout *layout : {&kBank1, &kBank2, &kOwnEeprom, &kFerundEeprom}) {
        std::string erased(memory_size(config, *layout), '\xff');
        ok = ok && write_file(board_dir + "/" + layout->file, erased);
    }
    return ok;
}

void power_cycle_microcontroller(Board &board) {
    json &s = board.state()["microcontroller"];
    json after = json::object();
    if (s.is_object() && (s.contains("boot_bank") || s.contains("running_bank")))
        after["running_bank"] = s.contains("boot_bank") ? s["boot_bank"] : s["running_bank"];
    if (s.is_object() && s.contains("rewritten_banks"))
        after["rewritten_banks"] = s["rewritten_banks"]; // flash, not RAM
    s = after;
}

std::unique_ptr<Device> open_microcontroller(Board &board, std::string_view path, int, int *err) {
    if (path != "/dev/uat_ucom" || !settings(board).is_object())
        return nullptr;
    *err = 0;
    return std::make_unique<Microcontroller>(board);
}

} // namespace tvsim
