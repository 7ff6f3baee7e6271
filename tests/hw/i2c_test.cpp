// The I2C bus layer and device functions: page and chunk arithmetic, argument refusals, and
// the retry rules against the buses of an attached board.
#include "board/create.h"
#include "hw/utils.h"
#include "interpose/control.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

TEST(I2cArithmetic, WriteChunksEndAtThePageEnd) {
    const struct {
        uint32_t address, left, page;
        uint16_t chunk;
    } cases[] = {
        {0x001C, 40, 32, 4}, {0x0020, 36, 32, 32}, {0x0040, 4, 32, 4},   {0x0000, 1, 32, 1},
        {0x001F, 9, 32, 1},  {0x7FE0, 64, 32, 32}, {0x000F, 100, 16, 1}, {0x0100, 300, 256, 256},
    };
    for (const auto &c : cases)
        EXPECT_EQ(i2c_page_chunk(c.address, c.left, c.page), c.chunk)
            << std::hex << c.address << " " << c.left << " " << c.page;
}

TEST(I2cArithmetic, ErrorByteKeepsBits8To11And0To3) {
    const struct {
        int result;
        uint8_t error;
    } cases[] = {{0, 0x00},          {-1, 0xFF},    {-ENXIO, 0xFA},
                 {-EREMOTEIO, 0xF7}, {0x123, 0x13}, {0xA5C, 0xAC}};
    for (const auto &c : cases)
        EXPECT_EQ(i2c_error_byte(c.result), c.error) << c.result;
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
    testing::internal::CaptureStdout();
    int fpga = IIC_FPGAEEP_Write(4, bytes, 3);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "IIC_FPGAEEP_Write() error ** fpga type fail. (3) \n");
    EXPECT_EQ(fpga, 3);
}

// A board in a temporary folder, attached while the test calls the device functions.
class I2cOnBoard : public testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("tvsim-i2c-test." + std::to_string(getpid()));
        fs::remove_all(dir_);
        std::string error;
        ASSERT_TRUE(tvsim::create_board(dir_.string(), {}, &error)) << error;
    }
    void TearDown() override {
        tvsim_detach();
        fs::remove_all(dir_);
    }
    void change_config(const std::function<void(json &)> &change) {
        json config = json::parse(std::ifstream(dir_ / "board.json"));
        change(config);
        std::ofstream(dir_ / "board.json") << config.dump();
    }
    void add_fault(const json &fault) {
        change_config([&](json &c) { c["faults"].push_back(fault); });
    }
    void attach() { ASSERT_EQ(tvsim_attach(dir_.c_str()), 0); }
    // What call prints on standard output (kept inside the board folder, which the attached
    // process reaches as it is).
    template <typename Call> std::string printed(Call call) {
        std::string path = (dir_ / "stdout.txt").string();
        fflush(stdout);
        int saved = dup(1);
        int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(file, 1);
        close(file);
        call();
        fflush(stdout);
        dup2(saved, 1);
        close(saved);
        std::ifstream in(path);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    // The I2C transfers so far, as "w" hex lengths of their first message ("nak" when any
    // message of the transfer was refused).
    std::vector<std::string> transfers() const {
        std::vector<std::string> seen;
        std::ifstream trace(dir_ / "trace.jsonl");
        for (std::string line; std::getline(trace, line);) {
            json e = json::parse(line);
            if (e["ev"] != "i2c")
                continue;
            const json &first = e["msgs"][0];
            seen.push_back(e.contains("errno") ? "nak"
                                               : std::to_string(first.value("w", "").size() / 2));
        }
        return seen;
    }
    fs::path dir_;
};

TEST_F(I2cOnBoard, PagedWriteSplitsAtPageEndsAndReadsBack) {
    attach();
    uint8_t data[40];
    for (int i = 0; i < 40; ++i)
        data[i] = static_cast<uint8_t>(i + 1);
    uint16_t count = 0;
    uint8_t error = 0x55;
    ASSERT_EQ(IIC_EEPROM_Write(0, 0x001C, sizeof data, data, &count, &error), 0);
    EXPECT_EQ(count, 40);
    EXPECT_EQ(error, 0);
    uint8_t back[40] = {};
    ASSERT_EQ(IIC_EEPROM_Read(0, 0x001C, sizeof back, &error, back), 0);
    EXPECT_EQ(memcmp(back, data, sizeof data), 0);
    // Messages of 6, 34 and 6 bytes; the write cycle after each makes the next one retry.
    std::vector<std::string> acked;
    for (const std::string &t : transfers()) {
        if (t != "nak")
            acked.push_back(t);
    }
    EXPECT_EQ(acked, (std::vector<std::string>{"6", "34", "6", "2"}));
    EXPECT_GT(transfers().size(), acked.size()); // busy tries during the write cycles
    EXPECT_EQ(i2c_handle_initialized, 0);
}

TEST_F(I2cOnBoard, BusyTwiceThenSuccess) {
    add_fault({{"fault", "i2c_busy"}, {"target", "pelto"}, {"times", 2}});
    attach();
    uint8_t byte = 0;
    uint8_t error = 0x55;
    EXPECT_EQ(IIC_EEPROM_Read(0, 0x0100, 1, &error, &byte), 0);
    EXPECT_EQ(byte, 0xFF);
    EXPECT_EQ(transfers(), (std::vector<std::string>{"nak", "nak", "2"}));
}

TEST_F(I2cOnBoard, BusyForeverEndsAfterItsTries) {
    add_fault({{"fault", "i2c_busy"}, {"target", "pelto"}});
    attach();
    uint8_t byte = 0x12;
    uint16_t count = 0;
    uint8_t error = 0;
    EXPECT_EQ(IIC_EEPROM_Write(0, 0, 1, &byte, &count, &error), 6);
    EXPECT_EQ(error, 0xFF); // low byte of -1, the bus layer's busy result
    EXPECT_EQ(transfers().size(), 3u * kI2cBusyTries);
}

TEST_F(I2cOnBoard, RefusedDataIsFinalAfterThreeAttempts) {
    add_fault({{"fault", "i2c_nak"}, {"target", "vornek"}});
    attach();
    const uint8_t message[4] = {0x70, 0xFA, 0x57, 0x45};
    int result = 0;
    EXPECT_EQ(printed([&] { result = IIC_VornekEEP_Write(sizeof message, message); }),
              "IIC_VornekEEP_Write() ERROR!\n");
    EXPECT_EQ(result, 6);
    EXPECT_EQ(transfers(), (std::vector<std::string>{"nak", "nak", "nak"}));
}

TEST_F(I2cOnBoard, BusWithoutStatusRequestFailsAtOnceWithTheTransferError) {
    change_config([](json &c) { c["i2c"]["without_status_request"] = {0}; });
    add_fault({{"fault", "i2c_busy"}, {"target", "pelto"}});
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

} // namespace
