#include "board/i2c.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tvsim {

namespace {

constexpr int kBusCount = 3;
constexpr size_t kMaxMessageLength = 8192; // i2c-dev's limit for one message
constexpr uint64_t kBitsPerByte = 9;       // 8 data bits and the acknowledge
constexpr unsigned long kAdapterFunctions = I2C_FUNC_I2C | I2C_FUNC_SMBUS_EMUL;

const json &settings(const Board &board) {
    return member(board.config(), "i2c");
}

// The bytes of a device's EEPROM: "size", 32 KiB without it.
size_t eeprom_size(const json &device_config) {
    return number_from(member(device_config, "size"), 32768);
}

// One message of a transfer, as the program handed it over.
struct Message {
    uint16_t address;
    bool read;
    uint8_t *bytes;
    size_t length;
};

// One adapter, as i2c-dev offers it.
class I2cBus : public Device {
public:
    I2cBus(Board &board, int bus)
        : Device(board), bus_(bus), devices_(i2c_devices_on(board, bus)),
          speed_hz_(number_from(member(settings(board), "speed_hz"), 100000)) {}

    ssize_t read(void *buf, size_t count) override {
        return single_message(true, static_cast<uint8_t *>(buf), count);
    }

    ssize_t write(const void *buf, size_t count) override {
        return single_message(false, const_cast<uint8_t *>(static_cast<const uint8_t *>(buf)),
                              count);
    }

    int ioctl(unsigned long request, uintptr_t arg) override {
        switch (request) {
        case I2C_SLAVE:
        case I2C_SLAVE_FORCE:
            if (arg > 0x7F)
                return fail(EINVAL);
            client_ = static_cast<uint16_t>(arg);
            return 0;
        case I2C_FUNCS:
            *reinterpret_cast<unsigned long *>(arg) = kAdapterFunctions;
            return 0;
        case I2C_RETRIES:
        case I2C_TIMEOUT:
            return 0;
        case I2C_RDWR:
            return read_write(reinterpret_cast<i2c_rdwr_ioctl_data *>(arg));
        case I2C_SMBUS:
            return smbus(reinterpret_cast<i2c_smbus_ioctl_data *>(arg));
        case kI2cStatusRequest:
            return status_request(reinterpret_cast<uint32_t *>(arg));
        default:
            return fail(ENOTTY);
        }
    }

private:
    static int fail(int err) {
        errno = err;
        return -1;
    }

    json &bus_state() {
        json &buses = board_.state()["i2c"]["buses"];
        std::string key = std::to_string(bus_);
        if (!buses.contains(key))
            buses[key] = kI2cStatusOk;
        return buses[key];
    }

    int status_request(uint32_t *status) {
        const json &without = member(settings(board_), "without_status_request");
        for (const json &bus : elements(without)) {
            if (bus == bus_)
                return fail(ENOTTY);
        }
        *status = bus_state().get<uint32_t>();
        return 0;
    }

    int read_write(const i2c_rdwr_ioctl_data *data) {
        if (data->msgs == nullptr || data->nmsgs == 0 || data->nmsgs > I2C_RDWR_IOCTL_MAX_MSGS)
            return fail(EINVAL);
        std::vector<Message> messages;
        for (uint32_t i = 0; i < data->nmsgs; ++i) {
            const i2c_msg &m = data->msgs[i];
            if (m.len > kMaxMessageLength || (m.len > 0 && m.buf == nullptr))
                return fail(m.len > kMaxMessageLength ? EINVAL : EFAULT);
            if ((m.flags & ~I2C_M_RD) != 0) // ten-bit, no-start, receive-length: not offered
                return fail(EOPNOTSUPP);
            messages.push_back({m.addr, (m.flags & I2C_M_RD) != 0, m.buf, m.len});
        }
        return transfer(messages.data(), messages.size());
    }

    // The kernel's SMBus emulation for plain I2C adapters: one or two messages.
    int smbus(const i2c_smbus_ioctl_data *call) {
        if (call->read_write != I2C_SMBUS_READ && call->read_write != I2C_SMBUS_WRITE)
            return fail(EINVAL);
        bool read = call->read_write == I2C_SMBUS_READ;
        uint32_t size = call->size;
        if (call->data == nullptr && size != I2C_SMBUS_QUICK && !(size == I2C_SMBUS_BYTE && !read))
            return fail(EINVAL);
        i2c_smbus_data *data = call->data;
        uint8_t out[I2C_SMBUS_BLOCK_MAX + 2] = {call->command};
        uint8_t in[I2C_SMBUS_BLOCK_MAX] = {};
        size_t out_length = 1;
        size_t in_length = 0;
        switch (size) {
        case I2C_SMBUS_QUICK:
            return smbus_transfer({client_, read, out, 0}, nullptr);
        case I2C_SMBUS_BYTE:
            if (!read)
                return smbus_transfer({client_, false, out, 1}, nullptr);
            if (smbus_transfer({client_, true, in, 1}, nullptr) < 0)
                return -1;
            data->byte = in[0];
            return 0;
        case I2C_SMBUS_BYTE_DATA:
            in_length = read ? 1 : 0;
            if (!read)
                out[out_length++] = data->byte;
            break;
        case I2C_SMBUS_WORD_DATA:
        case I2C_SMBUS_PROC_CALL:
            in_length = read || size == I2C_SMBUS_PROC_CALL ? 2 : 0;
            if (!read || size == I2C_SMBUS_PROC_CALL) {
                out[out_length++] = static_cast<uint8_t>(data->word);
                out[out_length++] = static_cast<uint8_t>(data->word >> 8);
            }
            break;
        case I2C_SMBUS_BLOCK_DATA:
            if (read) // needs a receive-length message, which this adapter does not offer
                return fail(EOPNOTSUPP);
            if (data->block[0] > I2C_SMBUS_BLOCK_MAX) // a block of no bytes is sent as its count
                return fail(EINVAL);
            memcpy(out + 1, data->block, data->block[0] + 1u);
            out_length = data->block[0] + 2u;
            break;
        case I2C_SMBUS_I2C_BLOCK_DATA:
        case I2C_SMBUS_I2C_BLOCK_BROKEN:
            if (data->block[0] > I2C_SMBUS_BLOCK_MAX)
                return fail(EINVAL);
            if (read) {
                in_length =
                    size == I2C_SMBUS_I2C_BLOCK_BROKEN ? I2C_SMBUS_BLOCK_MAX : data->block[0];
            } else {
                memcpy(out + 1, data->block + 1, data->block[0]);
                out_length = data->block[0] + 1u;
            }
            break;
        default:
            return fail(EINVAL);
        }
        Message head{client_, false, out, out_length};
        if (in_length == 0)
            return smbus_transfer(head, nullptr);
        Message tail{client_, true, in, in_length};
        if (smbus_transfer(head, &tail) < 0)
            return -1;
        if (size == I2C_SMBUS_BYTE_DATA)
            data->byte = in[0];
        else if (size == I2C_SMBUS_WORD_DATA || size == I2C_SMBUS_PROC_CALL)
            data->word = static_cast<uint16_t>(in[0] | in[1] << 8);
        else {
            data->block[0] = static_cast<uint8_t>(in_length);
            memcpy(data->block + 1, in, in_length);
        }
        return 0;
    }

    int smbus_transfer(Message head, Message *tail) {
        Message messages[] = {head, tail != nullptr ? *tail : head};
        return transfer(messages, tail != nullptr ? 2 : 1) < 0 ? -1 : 0;
    }

    I2cDevice *device_at(uint16_t address) {
        for (auto &device : devices_) {
            if (device->address() == address)
                return device.get();
        }
        return nullptr;
    }

    void charge(size_t bytes) {
        board_.advance_ns(bytes * kBitsPerByte * kNsPerSecond / (speed_hz_ == 0 ? 1 : speed_hz_));
    }

    // A plain read or write of the bound address: one message, cut to i2c-dev's limit.
    ssize_t single_message(bool read, uint8_t *bytes, size_t count) {
        Message message{client_, read, bytes, std::min(count, kMaxMessageLength)};
        return transfer(&message, 1) < 0 ? -1 : static_cast<ssize_t>(message.length);
    }

    // Runs the messages with repeated starts and one stop: the number of messages, or -1 with
    // errno as the adapter reports the first failure.
    int transfer(Message *messages, size_t count) {
        json trace{{"bus", bus_}, {"msgs", json::array()}};
        std::vector<I2cDevice *> touched;
        int err = run_messages(messages, count, trace, touched);
        for (I2cDevice *device : touched)
            device->stop(err == 0);
        uint32_t status = kI2cStatusOk;
        if (err == ENXIO)
            status = kI2cStatusBusy;
        else if (err == EREMOTEIO)
            status = kI2cStatusDataNak;
        else if (err != 0)
            status = kI2cStatusBusError;
        bus_state() = status;
        if (err != 0)
            trace["errno"] = strerrorname_np(err);
        board_.trace("i2c", trace);
        return err == 0 ? static_cast<int>(count) : fail(err);
    }

    int run_messages(Message *messages, size_t count, json &trace,
                     std::vector<I2cDevice *> &touched) {
        if (const json *f = board_.take_fault("i2c_bus_error", "i2c-" + std::to_string(bus_))) {
            charge(1);
            return errno_from_name(f->value("errno", json("EIO")));
        }
        for (size_t i = 0; i < count; ++i) {
            Message &m = messages[i];
            json entry{{"addr", hex_text(m.address, 2)}};
            charge(1);
            I2cDevice *device = device_at(m.address);
            bool busy = device != nullptr && board_.take_fault("i2c_busy", device->name());
            if (device == nullptr || busy || !device->select(m.read)) {
                entry["nak"] = "address";
                trace["msgs"].push_back(entry);
                return ENXIO;
            }
            if (std::find(touched.begin(), touched.end(), device) == touched.end())
                touched.push_back(device);
            if (m.read) {
                if (const json *f = board_.take_fault("i2c_read_error", device->name())) {
                    charge(1); // the bus fails in the first byte of the read
                    int err = errno_from_name(f->value("errno", json("EIO")));
                    entry["failed"] = strerrorname_np(err);
                    trace["msgs"].push_back(entry);
                    return err;
                }
                device->read_message(m.bytes, m.length);
                charge(m.length);
                if (const json *f = board_.take_fault("i2c_read_differs", device->name());
                    f != nullptr && m.length > 0)
                    m.bytes[0] ^= static_cast<uint8_t>(number_from(member(*f, "mask"), 0xFF));
                entry["r"] = hex_bytes(m.bytes, m.length);
                trace["msgs"].push_back(entry);
                continue;
            }
            size_t acked = board_.take_fault("i2c_nak", device->name()) != nullptr
                               ? 0
                               : device->write_message(m.bytes, m.length);
            charge(acked < m.length ? acked + 1 : m.length);
            entry["w"] = hex_bytes(m.bytes, m.length);
            if (acked < m.length) {
                entry["nak"] = acked;
                trace["msgs"].push_back(entry);
                return EREMOTEIO;
            }
            trace["msgs"].push_back(entry);
        }
        charge(1); // the stop condition
        return 0;
    }

    int bus_;
    std::vector<std::unique_ptr<I2cDevice>> devices_;
    uint64_t speed_hz_;
    uint16_t client_ = 0; // the address set by I2C_SLAVE
};

} // namespace

I2cDevice::I2cDevice(Board &board, const json &config)
    : board_(board), config_(config), name_(config.value("name", "")),
      bus_(static_cast<int>(number_from(member(config, "bus"), 0))),
      address_(static_cast<int>(number_from(member(config, "address"), 0))) {}

json &I2cDevice::volatile_state() {
    json &state = board_.state()["i2c"]["devices"][name_];
    if (!state.is_object())
        state = json::object();
    return state;
}

EepromCells::EepromCells(Board &board, const json &device_config)
    : StoredCells(board,
                  board.file(device_config.value("file", "i2c/" + device_config.value("name", "") +
                                                             ".bin")),
                  eeprom_size(device_config)) {}

std::unique_ptr<Device> open_i2c_bus(Board &board, std::string_view path, int, int *err) {
    if (path.substr(0, 9) != "/dev/i2c-" || !settings(board).is_object())
        return nullptr;
    std::string_view number = path.substr(9);
    if (number.size() != 1 || number[0] < '0' || number[0] >= '0' + kBusCount)
        return nullptr;
    *err = 0;
    return std::make_unique<I2cBus>(board, number[0] - '0');
}

json default_i2c_config() {
    return json{{"without_status_request", json::array()},
                {"devices",
                 {{{"name", "pelto"},
                   {"model", "serial_eeprom"},
                   {"bus", 0},
                   {"address", "0x51"},
                   {"file", "i2c/pelto.bin"}},
                  {{"name", "KOLMA_1"},
                   {"model", "kolma"},
                   {"bus", 2},
                   {"address", "0x29"},
                   {"file", "i2c/kolma_1.bin"},
                   {"reset_pin", 23}},
                  {{"name", "KOLMA_2"},
                   {"model", "kolma"},
                   {"bus", 2},
                   {"address", "0x2B"},
                   {"file", "i2c/kolma_2.bin"},
                   {"reset_pin", 23}},
                  {{"name", "vornek"},
                   {"model", "vornek"},
                   {"bus", 2},
                   {"address", "0x0A"},
                   {"file", "i2c/vornek.bin"},
                   {"write_us", 200}},
                  {{"name", "fpga_tr5"},
                   {"model", "fpga_tr5"},
                   {"bus", 2},
                   {"address", "0x0D"},
                   {"file", "i2c/fpga_tr5.bin"},
                   {"size", 2048},
                   {"fpga", 1},
                   {"reset_pin", 40},
                   {"write_enable_pin", 95},
                   {"write_us", 5000}},
                  {{"name", "fpga_tr6"},
                   {"model", "fpga_tr6"},
                   {"bus", 2},
                   {"address", "0x0F"},
                   {"file", "i2c/fpga_tr6.bin"},
                   {"size", 2048},
                   {"fpga", 2},
                   {"reset_pin", 38},
                   {"write_us", 5000}}}}};
}

bool create_i2c_files(const std::string &board_dir, const json &config) {
    const json &devices = member(config, "devices");
    for (const json &device : elements(devices)) {
        if (!device.contains("file"))
            continue;
        fs::path file = fs::path(board_dir) / device["file"].get<std::string>();
        std::error_code ec;
        fs::create_directories(file.parent_path(), ec);
        if (!write_file(file.string(), std::string(eeprom_size(device), '\xff')))
            return false;
    }
    return true;
}

} // namespace tvsim
