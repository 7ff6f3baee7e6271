// The board's I2C buses "/dev/i2c-0" to "/dev/i2c-2" as the kernel's i2c-dev adapters
// (I2C_RDWR, I2C_SLAVE/I2C_SLAVE_FORCE with read and write, I2C_FUNCS, I2C_SMBUS emulated on
// plain messages) with the board driver's status request 0x7702, and the devices on them.
//
// board.json "i2c" (absent: the board has no I2C buses):
//   { "speed_hz": 100000,                bus clock; every byte costs 9 bit times
//     "without_status_request": [],      buses whose driver lacks the 0x7702 request
//     "devices": [ { "name": "pelto", "model": "serial_eeprom", "bus": 0, "address": "0x51",
//                    "file": "i2c/pelto.bin", "size": 32768, ... }, ... ] }
// A device model is named by "model"; see i2c_devices.h. What a device keeps in RAM lives in
// state.json "i2c" (lost at a power cycle); its EEPROM cells in its "file".
// Faults (target: the device's name, or "i2c-N" for a bus fault):
//   i2c_busy           the device does not acknowledge its address (status busy), per try
//   i2c_nak            the device does not acknowledge the first data byte (final failure)
//   i2c_read_differs   the first byte of a read is XORed with "mask" (default 0xFF)
//   i2c_read_error     a read message of the device fails with "errno" (default EIO) after
//                      its address was acknowledged
//   i2c_bus_error      the transfer fails on the bus with "errno" (default EIO)
#pragma once

#include "board/board.h"
#include "board/device.h"
#include "board/stored_cells.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tvsim {

// Status words of the board's bus driver, as the 0x7702 request reports its last transfer.
inline constexpr uint32_t kI2cStatusOk = 0;
// The address was not acknowledged: a device in its write cycle, or none at that address;
// the driver cannot tell them apart, and reports a transfer that may be repeated.
inline constexpr uint32_t kI2cStatusBusy = 0x80000004;
inline constexpr uint32_t kI2cStatusDataNak = 0x80000002;
inline constexpr uint32_t kI2cStatusBusError = 0x80000001;
inline constexpr unsigned long kI2cStatusRequest = 0x7702;

// A device on a bus, seen one message at a time. Models keep what must outlive one open
// descriptor in volatile() (state.json) or in files.
class I2cDevice {
public:
    I2cDevice(Board &board, const json &config);
    virtual ~I2cDevice() = default;
    I2cDevice(const I2cDevice &) = delete;
    I2cDevice &operator=(const I2cDevice &) = delete;

    const std::string &name() const { return name_; }
    int bus() const { return bus_; }
    int address() const { return address_; }

    // A start condition with the device's address: false when it does not acknowledge.
    virtual bool select(bool read) = 0;
    // A write message's bytes: the number acknowledged (count when all were).
    virtual size_t write_message(const uint8_t *bytes, size_t count) = 0;
    // A read message.
    virtual void read_message(uint8_t *bytes, size_t count) = 0;
    // The stop condition that ends a transfer; completed is false when it was cut short.
    virtual void stop(bool completed) { (void)completed; }

protected:
    // The device's RAM state in state.json "i2c" "devices" NAME (an object).
    json &volatile_state();
    const json &config() const { return config_; }

    Board &board_;

private:
    json config_;
    std::string name_;
    int bus_;
    int address_;
};

// The devices that board.json puts on a bus.
std::vector<std::unique_ptr<I2cDevice>> i2c_devices_on(Board &board, int bus);

std::unique_ptr<Device> open_i2c_bus(Board &board, std::string_view path, int flags, int *err);

// The "i2c" section of a new board, and the device files it needs.
json default_i2c_config();
bool create_i2c_files(const std::string &board_dir, const json &config);

// An EEPROM's cells, kept in a plain file of the board.
class EepromCells : public StoredCells {
public:
    EepromCells(Board &board, const json &device_config);
};

} // namespace tvsim
