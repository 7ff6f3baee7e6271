// The I2C bus layer and device functions: argument refusals, and the retry rules against the
// buses of an attached board.
#include "eeprom/eep_update.h"
#include "fpga/update_fpga.h"
#include "hw/utils.h"
#include "run/main.h"
#include "support/board_fixture.h"
#include "support/i2c_trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <numeric>
#include <sys/ioctl.h>

using testsupport::fault;
using testsupport::json;
using testsupport::printed;

namespace {

// n bytes counting up from first, after the given leading bytes.
std::vector<uint8_t> counting(int n, int first, std::vector<uint8_t> bytes = {}) {
    for (int i = 0; i < n; ++i)
        bytes.push_back(static_cast<uint8_t>(first + i));
    return bytes;
}

// Argument refusals come before any bus is opened: no board is needed to see them.
TEST(I2cArguments, RefusedWithoutATransfer) {
    uint8_t bytes[70] = {};
    uint8_t error = 0x55;
    uint16_t count = 0;
    EXPECT_EQ(IIC_EEPROM_Write(0, static_cast<int16_t>(0x8000), 1, bytes, &count, &error), 3);
    EXPECT_EQ(IIC_EEPROM_Write(3, 0, 1, bytes, &count, &error), 3);
    EXPECT_EQ(IIC_EEPROM_Read(-1, 0, 1, &error, bytes), 3);
    EXPECT_EQ(IIC_EEPROM_Read(0, 0, 1, &error, nullptr), 3);
    EXPECT_EQ(IIC_EEPROM_HDMI_Write(0, 0x7FF0, 16, bytes, &count, &error), 3);
    EXPECT_EQ(IIC_KOLMAEEP_Read(bytes, 3, bytes, 0), 3);
    EXPECT_EQ(IIC_KOLMAEEP_Write(4, bytes, 2), 3);
    EXPECT_EQ(IIC_VornekEEP_Write(0, bytes), 3);
    EXPECT_EQ(IIC_VornekEEP_Write(67, bytes), 3);
    EXPECT_EQ(IIC_VornekEEP_Read(nullptr, 2, bytes), 3);
    EXPECT_EQ(i2c_write(0, 0xA2, 0, bytes), -1);
    EXPECT_EQ(i2c_write(3, 0xA2, 1, bytes), -1);
    EXPECT_EQ(i2c_read_write(0, 0xA2, 2, bytes, 0, bytes), -1);
    EXPECT_EQ(i2c_handle_initialized, 0);
    int fpga = 0;
    EXPECT_EQ(printed([&] { fpga = IIC_FPGAEEP_Write(4, bytes, 3); }),
              "IIC_FPGAEEP_Write() error ** fpga type fail. (3) \n");
    EXPECT_EQ(fpga, 3);
}

// A board attached while the test calls the device functions; the control device, where a test
// opened it, is closed after it.
class I2cOnBoard : public testsupport::BoardFixture {
protected:
    void TearDown() override {
        close(cn_user_fd);
        cn_user_fd = -1;
        BoardFixture::TearDown();
    }
    // errno of a failed request (which returns -1, as the kernel's calls do), 0 when it
    // succeeded; any other negative result as it is.
    static int error_of(int result) { return result == -1 ? errno : std::min(result, 0); }
    static int rdwr(int fd, std::vector<i2c_msg> messages) {
        i2c_rdwr_ioctl_data data{messages.data(), static_cast<uint32_t>(messages.size())};
        return error_of(ioctl(fd, I2C_RDWR, &data));
    }
    // The I2C transfers so far, as "w" hex lengths of their first message ("nak" when any
    // message of the transfer was refused).
    std::vector<std::string> transfers() const {
        std::vector<std::string> seen;
        for (const json &e : trace("i2c")) {
            const json &first = e["msgs"][0];
            seen.push_back(e.contains("errno") ? "nak"
                                               : std::to_string(first.value("w", "").size() / 2));
        }
        return seen;
    }
    // The transfers that were not refused.
    std::vector<std::string> acked() const {
        std::vector<std::string> seen = transfers();
        std::erase(seen, "nak");
        return seen;
    }
    // The message that writes a 16-bit register of a register interface: register, then value,
    // high bytes first.
    static std::array<uint8_t, 4> register_write(uint16_t reg, uint16_t value) {
        return {static_cast<uint8_t>(reg >> 8), static_cast<uint8_t>(reg),
                static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    }
};

TEST_F(I2cOnBoard, PagedWriteSplitsAtPageEndsAndReadsBack) {
    attach();
    std::vector<uint8_t> data = counting(40, 1), back(40);
    uint16_t count = 0;
    uint8_t error = 0x55;
    ASSERT_EQ(IIC_EEPROM_Write(0, 0x001C, 40, data.data(), &count, &error), 0);
    EXPECT_EQ(count, 40);
    EXPECT_EQ(error, 0);
    ASSERT_EQ(IIC_EEPROM_Read(0, 0x001C, 40, &error, back.data()), 0);
    EXPECT_EQ(back, data);
    // Messages of 6, 34 and 6 bytes; the write cycle after each makes the next one retry.
    EXPECT_EQ(acked(), (std::vector<std::string>{"6", "34", "6", "2"}));
    EXPECT_GT(transfers().size(), acked().size()); // busy tries during the write cycles
    EXPECT_EQ(i2c_handle_initialized, 0);
}

TEST_F(I2cOnBoard, BusyForeverEndsAfterItsTries) {
    add_fault(fault("i2c_busy", "pelto"));
    attach();
    uint8_t byte = 0x12;
    uint16_t count = 0;
    uint8_t error = 0;
    EXPECT_EQ(IIC_EEPROM_Write(0, 0, 1, &byte, &count, &error), 6);
    EXPECT_EQ(error, 0xFF); // low byte of -1, the bus layer's busy result
    EXPECT_EQ(transfers().size(), 3u * kI2cBusyTries);
}

TEST_F(I2cOnBoard, BusWithoutStatusRequestFailsAtOnceWithTheTransferError) {
    change_config([](json &c) { c["i2c"]["without_status_request"] = {0}; });
    add_fault(fault("i2c_busy", "pelto"));
    attach();
    i2c_init();
    uint8_t bytes[3] = {0, 0, 0x42};
    EXPECT_EQ(i2c_write(0, 0xA2, sizeof bytes, bytes), -ENXIO);
    i2c_deinit();
    EXPECT_EQ(transfers().size(), 1u);
}

TEST_F(I2cOnBoard, KolmaHeldInResetNeverAnswers) {
    attach();
    const uint8_t status_register[2] = {0x40, 0xF8};
    uint8_t status[2] = {};
    int result = 0;
    EXPECT_EQ(printed([&] { result = IIC_KOLMAEEP_Read(status_register, 2, status, 1); }),
              "error num = -6 \nerror num = -6 \nerror num = -6 \nIIC_KOLMAEEP_Read() ERROR!\n");
    EXPECT_EQ(result, 6);
    EXPECT_EQ(transfers().size(), 3u * (kI2cBusyTries + 1));
}

// The number of descriptors the process has open; -1 when it cannot open one more to look.
long open_descriptors() {
    std::error_code error;
    std::filesystem::directory_iterator entries("/proc/self/fd", error);
    return error ? -1 : std::distance(entries, std::filesystem::directory_iterator());
}

// Each call opens and closes the three buses; the board, like the TV, gives a process 1024
// descriptors, so a call that kept one would fail within these calls. Refused data is final
// after three attempts.
TEST_F(I2cOnBoard, DeviceCallsReleaseTheirBusDescriptorsAndRefusedDataIsFinal) {
    attach();
    const long before = open_descriptors();
    const uint8_t status_register[2] = {0x70, 0xF8};
    uint8_t status[2] = {};
    int failed = 0;
    for (int call = 0; call < 400; ++call)
        failed += IIC_VornekEEP_Read(status_register, 2, status) != 0;
    EXPECT_EQ(failed, 0);
    const uint8_t key[4] = {0x70, 0xFA, 0x57, 0x45};
    add_fault(fault("i2c_nak", "vornek"));
    detach();
    attach();
    const size_t reads = transfers().size();
    EXPECT_EQ(printed([&] { EXPECT_EQ(IIC_VornekEEP_Write(sizeof key, key), 6); }),
              "IIC_VornekEEP_Write() ERROR!\n");
    EXPECT_EQ(open_descriptors(), before);
    const std::vector<std::string> seen = transfers();
    EXPECT_EQ(std::vector<std::string>(seen.begin() + static_cast<long>(reads), seen.end()),
              (std::vector<std::string>{"nak", "nak", "nak"}));
}

// Each byte on the bus takes 9 bit times at 100 kHz: the address bytes, the data up to and
// including the first byte not acknowledged, and the stop, which a refused transfer never sends.
TEST_F(I2cOnBoard, BusTimeRunsToTheRefusedByte) {
    add_fault(fault("i2c_bus_error", "i2c-0", {{"skip", 1}, {"times", 1}}));
    add_fault(fault("i2c_nak", "pelto", {{"skip", 1}, {"times", 1}}));
    add_fault(fault("i2c_read_error", "pelto", {{"times", 1}}));
    attach();
    int bus = open("/dev/i2c-0", O_RDWR);
    ASSERT_GE(bus, 0);
    uint8_t address[3] = {0x00, 0x00, 0xAA};
    uint8_t in[2] = {};
    ASSERT_EQ(ioctl(bus, I2C_SLAVE, 0x51), 0);
    auto messages = [bus](std::vector<i2c_msg> m) { return [bus, m] { rdwr(bus, m); }; };
    auto smbus = [bus](uint8_t read_write, int size, uint8_t block_count = 0) {
        return [bus, read_write, size, block_count] {
            i2c_smbus_data data{};
            data.block[0] = block_count;
            i2c_smbus_ioctl_data call{read_write, 0, static_cast<uint32_t>(size), &data};
            ioctl(bus, I2C_SMBUS, &call);
        };
    };
    auto read_back = messages({{0x51, 0, 2, address}, {0x51, I2C_M_RD, 2, in}});
    const struct {
        const char *what;
        std::function<void()> transfer;
        int64_t bytes;
    } cases[] = {
        {"a write, for the time it ends", messages({{0x51, 0, 2, address}}), 4},
        {"a bus error", messages({{0x51, 0, 2, address}}), 1},
        {"the first data byte refused", messages({{0x51, 0, 3, address}}), 2},
        {"a read that fails", read_back, 5},
        {"no device at the address", messages({{0x52, I2C_M_RD, 1, in}}), 1},
        {"a read", read_back, 7},
        {"SMBus receive byte", smbus(I2C_SMBUS_READ, I2C_SMBUS_BYTE), 3},
        {"SMBus write byte data", smbus(I2C_SMBUS_WRITE, I2C_SMBUS_BYTE_DATA), 4},
        {"SMBus read byte data", smbus(I2C_SMBUS_READ, I2C_SMBUS_BYTE_DATA), 5},
        {"SMBus read word data", smbus(I2C_SMBUS_READ, I2C_SMBUS_WORD_DATA), 6},
        {"SMBus block write, the longest",
         smbus(I2C_SMBUS_WRITE, I2C_SMBUS_BLOCK_DATA, I2C_SMBUS_BLOCK_MAX), 36},
    };
    const size_t before = trace("i2c").size();
    for (const auto &c : cases)
        c.transfer();
    close(bus);
    const std::vector<json> events = trace("i2c");
    ASSERT_EQ(events.size(), before + std::size(cases));
    for (size_t i = 1; i < std::size(cases); ++i) {
        const int64_t took =
            events[before + i]["t"].get<int64_t>() - events[before + i - 1]["t"].get<int64_t>();
        EXPECT_EQ(took, cases[i].bytes * 90000) << cases[i].what;
    }
}

TEST_F(I2cOnBoard, HdmiEepromPagesAndHalves) {
    change_config([](json &c) {
        for (int half : {0, 1})
            c["i2c"]["devices"].push_back({{"name", "hdmi" + std::to_string(half)},
                                           {"model", "serial_eeprom"},
                                           {"bus", 1},
                                           {"address", 0x50 + half},
                                           {"size", 256},
                                           {"page", 16},
                                           {"address_bytes", 1}});
    });
    attach();
    std::vector<uint8_t> data = counting(40, 0x80), low(8), high(32);
    uint16_t count = 0;
    uint8_t error = 0x55;
    ASSERT_EQ(IIC_EEPROM_HDMI_Write(1, 0x00F8, 40, data.data(), &count, &error), 0);
    EXPECT_EQ(error, 0);
    // The low half takes 0xF8..0xFF, the high half (address bit 8) the rest from its word 0.
    uint16_t covered = 0;
    ASSERT_EQ(IIC_EEPROM_HDMI_Read(1, 0x00F8, 8, &error, low.data(), &covered), 0);
    ASSERT_EQ(IIC_EEPROM_HDMI_Read(1, 0x0100, 32, &error, high.data(), &covered), 0);
    EXPECT_EQ(covered, 32);
    EXPECT_EQ(low, counting(8, 0x80));
    EXPECT_EQ(high, counting(32, 0x88));
    // Writes of 8, 16 and 16 bytes after the word address, then the two reads.
    EXPECT_EQ(acked(), (std::vector<std::string>{"9", "17", "17", "1", "1"}));
    // An SMBus word read (as i2cget's "w" makes it) takes its command byte as the word address
    // and returns the first byte as the word's low byte; an I2C block read (i2cdump's "i")
    // returns its count, then the bytes.
    int bus = open("/dev/i2c-1", O_RDWR);
    i2c_smbus_data word{};
    i2c_smbus_ioctl_data read_word{I2C_SMBUS_READ, 0xF8, I2C_SMBUS_WORD_DATA, &word};
    i2c_smbus_data block{};
    block.block[0] = 3;
    i2c_smbus_ioctl_data read_block{I2C_SMBUS_READ, 0xF8, I2C_SMBUS_I2C_BLOCK_DATA, &block};
    EXPECT_EQ(ioctl(bus, I2C_SLAVE, 0x50), 0);
    EXPECT_EQ(ioctl(bus, I2C_SMBUS, &read_word), 0);
    EXPECT_EQ(ioctl(bus, I2C_SMBUS, &read_block), 0);
    close(bus);
    EXPECT_EQ(word.word, 0x8180);
    EXPECT_EQ(std::vector<uint8_t>(block.block, block.block + 5),
              (std::vector<uint8_t>{3, 0x80, 0x81, 0x82, 0}));
}

// A KOLMA with its EEPROM cells counting up in threes from 0x0123, released and enabled.
class KolmaRead : public I2cOnBoard {
protected:
    void start(const json &kolma_settings, const json &faults = json::array()) {
        for (int i = 0; i < 16; ++i)
            cells_[0x0123 + i] = static_cast<char>(i * 3);
        std::ofstream(dir_ / "i2c/kolma_1.bin", std::ios::binary) << cells_;
        change_config([&](json &c) {
            c["i2c"]["devices"][1].update(kolma_settings);
            c["faults"] = faults;
        });
        attach();
        cn_user_fd = open("/dev/cn_user", O_RDWR);
        eep_flags = 0;
        SetKolmaHwReset();
        ASSERT_EQ(EnableKOLMAEeprom(), 0);
    }
    static void set(uint16_t reg, uint16_t value) {
        EXPECT_EQ(IIC_KOLMAEEP_Write(4, register_write(reg, value).data(), 0), 0);
    }
    static int word_at(uint16_t reg) {
        const uint8_t number[2] = {static_cast<uint8_t>(reg >> 8), static_cast<uint8_t>(reg)};
        uint8_t word[2] = {};
        EXPECT_EQ(IIC_KOLMAEEP_Read(number, 2, word, 0), 0);
        return word[0] << 8 | word[1];
    }
    std::string cells_ = std::string(32768, '\xff');
};

TEST_F(KolmaRead, DataRegistersShowAReadOnlyOnceItIsFetchedAndLoaded) {
    start({{"read_fetch_us", 5000}, {"read_load_us", 5000}});
    std::string buffer(12, '\xee');
    EXPECT_EQ(ReadKOLMAEeprom(0x0123, reinterpret_cast<uint8_t *>(buffer.data()), 10), 0);
    EXPECT_EQ(buffer, cells_.substr(0x0123, 10) + "\xee\xee");
    // The read command twice, the address, the start: the register writes of a read.
    std::vector<std::string> writes;
    for (const json &e : trace("i2c"))
        writes.push_back(e["msgs"][0].value("w", ""));
    const std::vector<std::string> read = {"40000007", "40000007", "400a0123", "401c0000"};
    EXPECT_NE(std::search(writes.begin(), writes.end(), read.begin(), read.end()), writes.end());
    // The data registers keep that read until a start after the read command has fetched (status
    // 0x01) and loaded (0x08) the bytes at the read address; a start while a read is
    // in progress is ignored.
    std::vector<int> seen = {word_at(0x400C)};
    set(0x400A, 0x0126); // the address alone
    seen.push_back(word_at(0x400C));
    set(0x4000, 0x0000);
    set(0x401C, 0x0000); // a start after another command
    seen.push_back(word_at(0x4002));
    set(0x4000, 0x0007);
    set(0x401C, 0x0000);
    set(0x400A, 0x0129);
    set(0x401C, 0x0000); // a start while fetching
    for (useconds_t pause : {0, 5000, 5000}) {
        usleep(pause);
        seen.push_back(word_at(0x4002));
        seen.push_back(word_at(0x400C));
    }
    EXPECT_EQ(seen, (std::vector<int>{0x0003, 0x0003, 0x0000, 0x0001, 0x0003, 0x0008, 0x0003,
                                      0x0000, 0x090C}));
}

// The status waits take all their six reads: a fetch and a load that end just before the last
// read of their wait pass; a status bit that stays set fails the read with its status.
TEST_F(KolmaRead, StatusWaitsTakeTheirSixReads) {
    struct Case {
        json settings;
        json faults;
        int result;
        std::string output;
    };
    const std::string error = "KOLMA EEP Read ERROR! on xxxxxxx0 detection ";
    for (const Case &c : {
             Case{{{"read_fetch_us", 7600}, {"read_load_us", 8800}}, json::array(), 0, ""},
             Case{{{"read_fetch_us", 9000}}, json::array(), 1, error + "(0x01)\n"},
             Case{{{"read_load_us", 12000}}, json::array(), 1, error + "(0x08)\n"},
             Case{json::object(), {fault("register_read_error", "KOLMA_1")}, 1, error + "(0x01)\n"},
             Case{json::object(),
                  {fault("register_read_error", "KOLMA_1", {{"bits", 0x0A}})},
                  1,
                  error + "(0x0a)\n"},
         }) {
        SCOPED_TRACE(c.settings.dump() + c.faults.dump());
        start(c.settings, c.faults);
        std::string buffer(16, '\xee');
        int result = -1;
        EXPECT_EQ(printed([&] {
                      result =
                          ReadKOLMAEeprom(0x0123, reinterpret_cast<uint8_t *>(buffer.data()), 16);
                  }),
                  c.output);
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(buffer, c.result == 0 ? cells_.substr(0x0123, 16) : std::string(16, '\xee'));
        TearDown();
        SetUp();
    }
}

// The simulated adapters and devices refuse what the kernel and the devices would.
class I2cModels : public I2cOnBoard {
protected:
    void SetUp() override {
        I2cOnBoard::SetUp();
        // A Vornek that takes 5 ms to settle a block, longer than a few register transfers.
        change_config([](json &c) { c["i2c"]["devices"][3]["write_us"] = 5000; });
        attach();
        bus0_ = open("/dev/i2c-0", O_RDWR);
        bus2_ = open("/dev/i2c-2", O_RDWR);
        ASSERT_GE(bus0_, 0);
        ASSERT_GE(bus2_, 0);
    }
    void TearDown() override {
        close(bus0_);
        close(bus2_);
        I2cOnBoard::TearDown();
    }
    // A write of a 16-bit register of a device on bus 2, the Vornek unless told.
    int set_register(uint16_t reg, uint16_t value, uint16_t device = 0x0A) {
        std::array<uint8_t, 4> m = register_write(reg, value);
        return rdwr(bus2_, {{device, 0, 4, m.data()}});
    }
    // The two key registers written in turn; true when both took their value.
    bool vornek_keys(uint16_t first, uint16_t second) {
        return set_register(0x70FA, first) == 0 && set_register(0x70FC, second) == 0;
    }
    uint16_t vornek_status() {
        uint8_t reg[2] = {0x70, 0xF8};
        uint8_t value[2] = {};
        EXPECT_EQ(rdwr(bus2_, {{0x0A, 0, 2, reg}, {0x0A, I2C_M_RD, 2, value}}), 0);
        return static_cast<uint16_t>(value[0] << 8 | value[1]);
    }
    std::string vornek_cells() const { return read_file("i2c/vornek.bin"); }
    int bus0_ = -1;
    int bus2_ = -1;
};

TEST_F(I2cModels, AdapterRefusesWhatI2cDevRefuses) {
    uint8_t byte = 0;
    std::vector<i2c_msg> too_many(43, i2c_msg{0x51, I2C_M_RD, 1, &byte});
    std::vector<uint8_t> big(8193);
    i2c_smbus_ioctl_data bad_direction{2, 0, I2C_SMBUS_BYTE_DATA, nullptr};
    i2c_smbus_data data{};
    i2c_smbus_ioctl_data bad_size{I2C_SMBUS_READ, 0, 99, &data};
    i2c_smbus_ioctl_data read_byte{I2C_SMBUS_READ, 0, I2C_SMBUS_BYTE_DATA, &data};
    i2c_smbus_data block{};
    block.block[0] = I2C_SMBUS_BLOCK_MAX;
    i2c_smbus_ioctl_data read_block{I2C_SMBUS_READ, 0, I2C_SMBUS_I2C_BLOCK_DATA, &block};
    i2c_smbus_data no_bytes{}; // block[0], the count, is 0
    i2c_smbus_ioctl_data empty_block{I2C_SMBUS_WRITE, 0, I2C_SMBUS_BLOCK_DATA, &no_bytes};
    i2c_smbus_ioctl_data no_data{I2C_SMBUS_WRITE, 0, I2C_SMBUS_BYTE_DATA, nullptr};
    auto smbus_at = [&](int address, i2c_smbus_ioctl_data *call) {
        EXPECT_EQ(ioctl(bus0_, I2C_SLAVE, address), 0);
        return error_of(ioctl(bus0_, I2C_SMBUS, call));
    };
    const struct {
        const char *what;
        int error;
        int expected;
    } cases[] = {
        {"no messages", rdwr(bus0_, {}), EINVAL},
        {"43 messages", rdwr(bus0_, too_many), EINVAL},
        {"8193 bytes", rdwr(bus0_, {{0x51, 0, 8193, big.data()}}), EINVAL},
        {"ten-bit flag", rdwr(bus0_, {{0x51, I2C_M_TEN, 1, &byte}}), EOPNOTSUPP},
        {"address 0x80", error_of(ioctl(bus0_, I2C_SLAVE, 0x80)), EINVAL},
        {"SMBus direction", error_of(ioctl(bus0_, I2C_SMBUS, &bad_direction)), EINVAL},
        {"SMBus size", error_of(ioctl(bus0_, I2C_SMBUS, &bad_size)), EINVAL},
        {"SMBus read", smbus_at(0x51, &read_byte), 0},
        {"SMBus read of a whole block", smbus_at(0x51, &read_block), 0},
        {"SMBus block write of no bytes", smbus_at(0x51, &empty_block), 0},
        {"SMBus write without its data", smbus_at(0x51, &no_data), EINVAL},
        {"no device", rdwr(bus0_, {{0x52, I2C_M_RD, 1, &byte}}), ENXIO},
        {"SMBus read, no device", smbus_at(0x52, &read_byte), ENXIO},
        {"bus 3", error_of(open("/dev/i2c-3", O_RDWR)), ENOENT},
        {"time-out setting", error_of(ioctl(bus0_, I2C_TIMEOUT, 2)), 0}, // in 10 ms units
        {"unknown request", error_of(ioctl(bus0_, 0x7799, &byte)), ENOTTY},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.error, c.expected) << c.what;
    uint32_t status = 0;
    ASSERT_EQ(ioctl(bus0_, I2C_BUSY_STATUS_REQUEST, &status), 0);
    EXPECT_EQ(status, kI2cStatusBusy); // the last transfer's address was not acknowledged
    // A data byte not acknowledged (the low byte of a register the interface does not have).
    EXPECT_EQ(set_register(0x7000, 1), EREMOTEIO);
    ASSERT_EQ(ioctl(bus2_, I2C_BUSY_STATUS_REQUEST, &status), 0);
    EXPECT_EQ(status, 0x80000002u);
    // A plain read is one message, cut to 8192 bytes as i2c-dev cuts it; so is an SMBus write.
    ASSERT_EQ(ioctl(bus0_, I2C_SLAVE, 0x51), 0);
    EXPECT_EQ(read(bus0_, big.data(), big.size()), 8192);
    EXPECT_EQ(trace("i2c").back()["msgs"].size(), 1u);
    EXPECT_EQ(smbus_at(0x51, &empty_block), 0);
    EXPECT_EQ(trace("i2c").back()["msgs"].size(), 1u);
}

TEST_F(I2cModels, SerialEepromWrapsWithinThePageAndIsDeafDuringItsCycle) {
    std::vector<uint8_t> message = counting(34, 0, {0x00, 0x1E});
    ASSERT_EQ(rdwr(bus0_, {{0x51, 0, 36, message.data()}}), 0);
    uint8_t address[2] = {0x00, 0x00};
    std::vector<uint8_t> page(32);
    EXPECT_EQ(rdwr(bus0_, {{0x51, 0, 2, address}, {0x51, I2C_M_RD, 32, page.data()}}), ENXIO);
    usleep(5000);
    ASSERT_EQ(rdwr(bus0_, {{0x51, 0, 2, address}, {0x51, I2C_M_RD, 32, page.data()}}), 0);
    // Bytes 0 and 1 went to 0x1E and 0x1F, 2 to 33 wrapped to 0x00..0x1F; 32 and 33 replaced
    // the first two.
    EXPECT_EQ(page, counting(32, 2));
}

// One step of a sequence on the Vornek's registers: a register write ('w') or the data
// message ('d') and the errno it meets, a status read ('s') and the status high it shows, or a
// pause ('p', value in microseconds).
struct RegisterStep {
    char op;
    uint16_t reg;
    uint16_t value;
    int expected;
};

TEST_F(I2cModels, RegisterBlockStoredOnlyWhenTheSequenceWasFollowed) {
    using Steps = std::vector<RegisterStep>;
    constexpr uint16_t kA = 0x70FA, kB = 0x70FC, kAddress = 0x70FE;
    const Steps unlock = {{'w', kA, 0x5745, 0}, {'w', kB, 0x5043, 0}};
    const Steps lock = {{'w', kA, 0, 0}, {'w', kB, 0, 0}};
    const Steps address = {{'w', kAddress, 0x0040, 0}}, data = {{'d', 0, 0, 0}};
    const Steps refused = {{'w', kAddress, 0x0040, EREMOTEIO}, {'d', 0, 0, EREMOTEIO}};
    const Steps nothing_stored = {{'s', 0, 0, 0x00}};
    auto steps = [](std::initializer_list<Steps> parts) {
        Steps all;
        for (const Steps &part : parts)
            all.insert(all.end(), part.begin(), part.end());
        return all;
    };
    const struct {
        const char *what;
        Steps steps;
        bool stored;
    } rows[] = {
        // Stored at the address; both status bits while it settles, and during that the
        // interface takes no key; then "stored" alone.
        {"the whole sequence",
         steps({unlock,
                address,
                data,
                {{'s', 0, 0, 0x10}},
                lock,
                {{'s', 0, 0, 0x11}},
                unlock,
                {{'s', 0, 0, 0x11}, {'p', 0, 5000, 0}, {'s', 0, 0, 0x01}}}),
         true},
        {"locked: no address, no data", steps({refused, {{'w', 0x1234, 0, EREMOTEIO}}}), false},
        {"unlocked without data", steps({unlock, address, lock, nothing_stored}), false},
        {"keys in the wrong order",
         steps({{{'w', kB, 0x5043, 0}, {'w', kA, 0x5745, 0}}, nothing_stored, refused, lock}),
         false},
        {"data before the address",
         steps({unlock, {{'d', 0, 0, EREMOTEIO}}, address, lock, nothing_stored}), false},
        {"locked in the wrong order",
         steps({unlock, address, data, {{'w', kB, 0, 0}, {'w', kA, 0, 0}}, nothing_stored}), false},
        {"the first key again begins a new block",
         steps({unlock, address, data, unlock, lock, nothing_stored}), false},
    };
    uint8_t first = 1;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        // Each row begins settled and locked.
        usleep(5000);
        ASSERT_TRUE(vornek_keys(0, 0));
        const std::string before = vornek_cells();
        std::vector<uint8_t> message = counting(64, first++, {0xF1, 0x00});
        for (const RegisterStep &step : row.steps) {
            if (step.op == 'w')
                EXPECT_EQ(set_register(step.reg, step.value), step.expected) << step.reg;
            else if (step.op == 'd')
                EXPECT_EQ(rdwr(bus2_, {{0x0A, 0, 66, message.data()}}), step.expected);
            else if (step.op == 's')
                EXPECT_EQ(vornek_status() >> 8, step.expected);
            else
                usleep(step.value);
        }
        std::string block(message.begin() + 2, message.end());
        EXPECT_EQ(vornek_cells() == before.substr(0, 0x40) + block + before.substr(0x80),
                  row.stored);
        if (row.stored) { // status low: the block's sum
            EXPECT_EQ(vornek_status() & 0xFF,
                      std::accumulate(block.begin(), block.end(), 0u, [](unsigned sum, char byte) {
                          return (sum + uint8_t(byte)) % 256;
                      }));
        }
    }
}

TEST_F(I2cModels, KolmaAnswersAfterResetReleaseAndOpensItsEepromAfterEnable) {
    auto kolma = [this](uint16_t reg, uint16_t value) { return set_register(reg, value, 0x29); };
    EXPECT_EQ(kolma(0x40FA, 0x5745), ENXIO); // the key register, held in reset
    cn_user_fd = open("/dev/cn_user", O_RDWR);
    ASSERT_EQ(PIO_BitWrite(23, 1), PIO_OK);
    EXPECT_EQ(kolma(0x40FA, 0x5745), EREMOTEIO); // EEPROM not enabled
    // The EEPROM enable register takes 1 then 0; a value out of turn starts the sequence again,
    // as its first step when it is 1.
    for (uint16_t value : {0, 0})
        EXPECT_EQ(kolma(0x0016, value), 0);
    EXPECT_EQ(kolma(0x40FA, 0x5745), EREMOTEIO);
    for (uint16_t value : {1, 1, 0})
        EXPECT_EQ(kolma(0x0016, value), 0);
    // Unlocked after a block start, the block registers take a data word only after the address,
    // and only at an even offset.
    std::vector<int> block;
    for (const auto &[reg, value] : std::vector<std::pair<uint16_t, uint16_t>>{{0x4026, 0},
                                                                               {0x40FA, 0x5745},
                                                                               {0x40FC, 0x5043},
                                                                               {0x4100, 0x0102},
                                                                               {0x40FE, 0x0040},
                                                                               {0x4100, 0x0102},
                                                                               {0x4101, 0x0304}})
        block.push_back(kolma(reg, value));
    EXPECT_EQ(block, (std::vector<int>{0, 0, 0, EREMOTEIO, 0, 0, EREMOTEIO}));
    // Reads: only the registers that give a value answer; a write-only register, or one past
    // the read interface's 16 data bytes, refuses the register's low byte.
    const struct {
        uint16_t reg;
        int err;
    } reads[] = {
        {.reg = 0x40F8, .err = 0},              // write status
        {.reg = 0x4002, .err = 0},              // read status
        {.reg = 0x400C + 15, .err = 0},         // the last data byte
        {.reg = 0x400C + 16, .err = EREMOTEIO}, // the read start
        {.reg = 0x40FA, .err = EREMOTEIO},      // a key
    };
    for (const auto &r : reads) {
        uint8_t reg[2] = {static_cast<uint8_t>(r.reg >> 8), static_cast<uint8_t>(r.reg)};
        uint8_t value[2] = {};
        EXPECT_EQ(rdwr(bus2_, {{0x29, 0, 2, reg}, {0x29, I2C_M_RD, 2, value}}), r.err) << r.reg;
    }
    // A reset forgets the enable.
    ASSERT_EQ(PIO_BitWrite(23, 0), PIO_OK);
    EXPECT_EQ(kolma(0x40FA, 0x5745), ENXIO);
    ASSERT_EQ(PIO_BitWrite(23, 1), PIO_OK);
    EXPECT_EQ(kolma(0x40FA, 0x5745), EREMOTEIO);
}

} // namespace

namespace fpga {

// A fresh board per case: both FPGAs configured and out of reset, pin 95 (the TR5 EEPROM's
// write enable) high, and with a type, its EEPROM enabled.
class FpgaEepromOnBoard : public I2cOnBoard {
protected:
    // tr5: settings of the TR5's interface that differ from the board's (write_us, the time it
    // takes to settle a stored block; pll_lock_us).
    void fresh_board(const json &fault, int enable_type, const json &tr5 = json::object()) {
        tvsim_detach();
        SetUp();
        for (const char *rom : {"spi_rom1.bin", "spi_rom2.bin"})
            std::ofstream(dir_ / rom) << std::string(16, '\xff') << "\xaa\x99\x55\x66";
        change_config([&](json &c) {
            c["faults"] = fault.is_null() ? json::array() : json::array({fault});
            c["i2c"]["devices"][4].update(tr5);
        });
        attach();
        close(cn_user_fd);
        cn_user_fd = open("/dev/cn_user", O_RDWR);
        SetFPGAHwReset();
        PIO_BitWrite(kFpgaEepromPin, 1);
        if (enable_type != 0) {
            ASSERT_EQ(EnableFPGAEeprom(enable_type), 0);
        }
    }
    // The PLL status reads so far: register 0x0010 written, then read.
    long pll_reads() const { return register_reads("0010").size(); }
    // What each read of a register answered so far ("" when refused).
    std::vector<std::string> register_reads(const std::string &reg) const {
        std::vector<std::string> answers;
        for (const json &e : trace("i2c")) {
            if (e["msgs"].size() == 2 && e["msgs"][0].value("w", "") == reg)
                answers.push_back(e["msgs"][1].value("r", ""));
        }
        return answers;
    }
};

TEST_F(FpgaEepromOnBoard, PllLockNeedsThreeLockedReadsInARowThenCalibration) {
    fresh_board(fault("pll_never_locks", "fpga_tr5", {{"skip", 2}, {"times", 1}}), 1);
    EXPECT_EQ(pll_reads(), 6);                        // locked, locked, not, then three locked
    fresh_board(json(), 1, {{"pll_lock_us", 22000}}); // past the tool's 20 ms pause
    EXPECT_EQ(pll_reads(), 5);                        // not, not, then three locked
    fresh_board(fault("pll_never_locks", "fpga_tr6"), 0);
    EXPECT_EQ(printed([] { EXPECT_EQ(EnableFPGAEeprom(2), 1); }),
              "FPGA EEP ERROR! on checking FPGA PLL lock status(0x000c).\n");
    EXPECT_EQ(pll_reads(), 10);
    // Its EEPROM interface runs on that PLL: the enable register is not taken.
    int bus = open("/dev/i2c-2", O_RDWR);
    uint8_t enable[4] = {0x00, 0x20, 0x00, 0x00};
    EXPECT_EQ(rdwr(bus, {{0x0F, 0, sizeof enable, enable}}), EREMOTEIO);
    close(bus);
    // A TR5 whose calibration takes 20 ms after the lock is still calibrating when it is read.
    fresh_board(json(), 0, {{"pll_lock_us", 22000}, {"calibration_us", 20000}});
    EXPECT_EQ(printed([] { EXPECT_EQ(EnableFPGAEeprom(1), 1); }),
              "FPGA EEP ERROR! on checking Calibration done status(0x0000).\n");
}

TEST_F(FpgaEepromOnBoard, BlockSequencesAreJudgedByTheirLock) {
    std::vector<uint8_t> data = counting(33, 1); // a 32-byte block sums to 0x10
    auto timeouts = [](int n) {
        std::string text;
        while (n-- > 0)
            text += "FPGA EEP Timeout ERROR!!\n";
        return text;
    };
    const std::string check = "FPGA EEP Write Status check TIMEOUT! on 0x";
    struct Case {
        int type;
        json fault;
        int length;
        std::string output;
        int result;
        bool stored;
        int write_us = 0;
    };
    for (const Case &c : {
             Case{1, fault("register_wrong_sum", "fpga_tr5"), 32, "FPGA EEP Checksum ERROR!!\n", 0,
                  true},
             Case{1, fault("register_status_missing", "fpga_tr5", {{"skip", 3}, {"times", 3}}), 32,
                  timeouts(3), 0, true},
             Case{1, fault("register_status_missing", "fpga_tr5", {{"bits", 0x10}}), 32,
                  "FPGA EEP Write ERROR! on xxx1xxx0 detection (0x00)\n" + timeouts(10), 2, false},
             Case{1, fault("register_status_missing", "fpga_tr5", {{"bits", 0x10}, {"skip", 1}}),
                  32, "FPGA EEP Write ERROR! on xxx1xxxx detection (0x00)\n", 0, true},
             // Both status bits at the unlock: refused by a test of both, so nothing is sent.
             Case{1, fault("register_status_extra", "fpga_tr5", {{"times", 1}}), 32,
                  "FPGA EEP Write ERROR! on xxx1xxx0 detection (0x11)\n" + timeouts(10), 2, false},
             // Still settling at the first read after the lock (20 ms after it): bits 4 and 0.
             Case{1, json(), 32, timeouts(1), 0, true, 21000},
             Case{1, json(), 33,
                  "FPGA EEP Write ERROR! your specified size(33byte) exceed buffer(32byte).\n" +
                      timeouts(10),
                  2, false},
             Case{2, fault("register_wrong_sum", "fpga_tr6", {{"delta", 0x01}}), 32, "", 0, true},
             Case{2, fault("register_wrong_sum", "fpga_tr6", {{"delta", 0x10}}), 32,
                  check + "0010 detection(read 0x1020) 6000 \nFPGA EEP Checksum ERROR!\n", 1, true},
             Case{2, fault("register_status_missing", "fpga_tr6", {{"bits", 0x10}}), 32,
                  check +
                      "1000 detection(read 0x0000) 6000 \nFPGA EEP Write ERROR! on xxx1xxx0 "
                      "detection ret=1\n" +
                      check + "0100 detection(read 0x0000) 6000 \n" + timeouts(1),
                  2, false},
         }) {
        SCOPED_TRACE(c.fault.dump());
        fresh_board(c.fault, c.type,
                    c.write_us == 0 ? json::object() : json{{"write_us", c.write_us}});
        int result = -1;
        auto write = c.type == 1 ? WriteFPGAEeprom : WriteFPGAEeprom_TR6;
        EXPECT_EQ(printed([&] { result = write(0x40, data.data(), c.length); }), c.output);
        EXPECT_EQ(result, c.result);
        std::string cells = read_file(c.type == 1 ? "i2c/fpga_tr5.bin" : "i2c/fpga_tr6.bin");
        EXPECT_EQ(cells.substr(0x40, 32) == std::string(data.begin(), data.end() - 1), c.stored);
        std::vector<uint8_t> back(10);
        if (c.type == 1 && c.stored) { // the read interface sees what the block stored
            EXPECT_EQ(ReadFPGAEeprom(0x44, back.data(), 10), 0);
            EXPECT_EQ(back, counting(10, 5));
            // Its status, read at the start register, shows it ready.
            EXPECT_EQ(register_reads("4802"), std::vector<std::string>{"0000"});
        }
    }
}

// A TR5 read fails when its status shows bit 0; the other bits do not matter.
TEST_F(FpgaEepromOnBoard, Tr5ReadFailsOnStatusBit0Alone) {
    for (const auto &[bits, output] : std::vector<std::pair<int, std::string>>{
             {0x09, "FPGA EEP Read ERROR! on xxxxxxx0 detection (0x09)\n"}, {0x08, ""}}) {
        fresh_board(fault("register_read_error", "fpga_tr5", {{"bits", bits}}), 1);
        std::vector<uint8_t> back(4, 0xee);
        int result = -1;
        EXPECT_EQ(printed([&] { result = ReadFPGAEeprom(0x44, back.data(), 4); }), output);
        EXPECT_EQ(result, output.empty() ? 0 : 1);
        EXPECT_EQ(back,
                  output.empty() ? std::vector<uint8_t>(4, 0xff) : std::vector<uint8_t>(4, 0xee));
    }
}

// The TR6 block's pauses on the board clock: 5 ms after each key and 9 microseconds after the
// first data word, 4 after each other, each after the 20 ms that follow every register write.
TEST_F(FpgaEepromOnBoard, Tr6BlockKeepsItsPausesOnTheBoardClock) {
    fresh_board(json(), 2);
    const size_t before = trace("i2c").size();
    std::vector<uint8_t> data = counting(32, 1);
    ASSERT_EQ(printed([&] { EXPECT_EQ(WriteFPGAEeprom_TR6(0x40, data.data(), 32), 0); }), "");
    std::vector<json> block = trace("i2c");
    block.erase(block.begin(), block.begin() + static_cast<long>(before));
    std::vector<int64_t> pauses = testsupport::pauses_before(block);
    std::vector<std::string> registers;
    for (const json &transfer : block)
        registers.push_back(testsupport::register_of(transfer));
    // The block start's read, the keys, the status, the address, the words.
    ASSERT_GE(registers.size(), 21u);
    EXPECT_EQ(std::vector<std::string>(registers.begin(), registers.begin() + 5),
              (std::vector<std::string>{"4804", "4874", "4876", "4872", "4878"}));
    EXPECT_EQ(register_reads("4804"), std::vector<std::string>{"0000"});
    constexpr int64_t kAfterWrite = 20000000;
    EXPECT_EQ(pauses[1], kAfterWrite + 5000000); // between the keys
    EXPECT_EQ(pauses[2], kAfterWrite + 5000000); // the second key to the status
    std::vector<int64_t> expected(16, kAfterWrite + 4000);
    expected[0] = kAfterWrite; // the address to the first word
    expected[1] = kAfterWrite + 9000;
    EXPECT_EQ(std::vector<int64_t>(pauses.begin() + 4, pauses.begin() + 20), expected);
}

// Refused before anything reaches the FPGA: no PLL read, pin 95 left at 0.
TEST_F(FpgaEepromOnBoard, FilesThatGiveNoBlockAreRefusedBeforeTheFpga) {
    fresh_board(json(), 0);
    std::filesystem::create_directories(dir_ / "fs/tmp/w");
    std::ofstream(dir_ / "fs/tmp/w/tr6_eep.txt") << "0000 01\n";
    EXPECT_EQ(printed([] { EXPECT_EQ(Update_FPGAEeprom("/tmp/w", nullptr, nullptr, 3), -1); }),
              "**ERROR ** fpga type fail\n");
    std::ofstream(dir_ / "fs/tmp/w/tr6_eep.txt") << "\n";
    EXPECT_EQ(printed([] { EXPECT_EQ(Update_FPGAEeprom("/tmp/w", nullptr, nullptr, 2), -1); }),
              "Reading from file : /tmp/w/tr6_eep.txt \n"
              "**ERROR** no EEP block to write in /tmp/w/tr6_eep.txt\n");
    uint8_t level = 1;
    EXPECT_EQ(PIO_BitRead(kFpgaEepromPin, &level), PIO_OK);
    EXPECT_EQ(level, 0);
    EXPECT_EQ(pll_reads(), 0);
}

} // namespace fpga
