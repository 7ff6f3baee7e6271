// GPIO pins: where each pin lives, the status codes of the PIO_ functions, and pin access on
// an attached board through the control device's register window.
#include "hw/systool.h"
#include "hw/utils.h"
#include "run/main.h"
#include "support/board_fixture.h"

#include <fcntl.h>

using testsupport::json;

namespace {

TEST(PioRegisterBit, BanksAreNotEvenlySpaced) {
    const struct {
        int pin;
        bool valid;
        uint32_t address;
        unsigned bit;
    } cases[] = {
        {0, true, 0x80003000, 0},   {31, true, 0x80003000, 31}, {32, true, 0x80003028, 0},
        {63, true, 0x80003028, 31}, {64, true, 0x80003038, 0},  {95, true, 0x80003038, 31},
        {96, false, 0, 0},          {-1, false, 0, 0},
    };
    for (const auto &c : cases) {
        PioRegisterBit where{0, 0};
        ASSERT_EQ(pio_register_bit(c.pin, &where), c.valid) << c.pin;
        if (c.valid) {
            EXPECT_EQ(where.address, c.address) << c.pin;
            EXPECT_EQ(where.bit, c.bit) << c.pin;
        }
    }
}

// Argument checks come before any mapping: no board is needed to see them.
TEST(PioStatus, ArgumentChecksInTheirOrder) {
    uint8_t level = 0;
    EXPECT_EQ(PIO_BitRead(5, nullptr), PIO_NULL_LEVEL);
    EXPECT_EQ(PIO_BitRead(200, nullptr), PIO_NULL_LEVEL);
    EXPECT_EQ(PIO_BitRead(96, &level), PIO_BAD_PIN);
    EXPECT_EQ(PIO_BitRead(-1, &level), PIO_BAD_PIN);
    EXPECT_EQ(PIO_BitWrite(200, 2), PIO_BAD_LEVEL);
    EXPECT_EQ(PIO_BitWrite(5, 0x81), PIO_BAD_LEVEL);
    EXPECT_EQ(PIO_BitWrite(200, 1), PIO_BAD_PIN);
    EXPECT_EQ(PIO_BitWrite(-1, 0), PIO_BAD_PIN);
    EXPECT_EQ(sys_mmap(2), 3);
    EXPECT_EQ(sys_munmap(2), 0);

    testing::internal::CaptureStderr();
    int read_result = get_pio(96, nullptr);
    int negative_result = get_pio(-1, nullptr);
    int write_result = set_pio(-1, 1);
    int level_result = set_pio(5, 2);
    int beyond_result = PIO_OutputDataBitWrite2(64, 1); // pin 96
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Invalid pin: 96Invalid pin: -1Invalid pin: -1Invalid level: 2Invalid pin: 96");
    EXPECT_EQ(read_result, -1);
    EXPECT_EQ(negative_result, -1);
    EXPECT_EQ(write_result, -1);
    EXPECT_EQ(level_result, -1);
    EXPECT_EQ(beyond_result, PIO_FAILED);
}

// A board attached for the test's pin calls with cn_user_fd open.
class PinsOnBoard : public testsupport::BoardFixture {
protected:
    void attach() {
        BoardFixture::attach();
        cn_user_fd = open("/dev/cn_user", O_RDWR);
        ASSERT_GE(cn_user_fd, 0);
    }
    void detach() {
        close(cn_user_fd);
        cn_user_fd = -1;
        BoardFixture::detach();
    }
};

TEST_F(PinsOnBoard, WritesChangeOnlyTheirBitAndReadsSeeInputs) {
    change_config([](json &c) {
        c["soc"]["pin_inputs"] = {{"16", 1}, {"39", 1}};
        c.erase("spi"); // no FPGAs wired: pin 37 is a plain output here
    });
    attach();
    uint8_t level16 = 9, level39 = 9, level37 = 9, level32 = 9;
    int results[] = {
        PIO_BitWrite(37, 1),       PIO_BitWrite(63, 1),       PIO_OutputDataBitWrite2(0, 1),
        PIO_BitWrite(63, 0),       PIO_BitWrite(95, 1),       PIO_BitRead(16, &level16),
        PIO_BitRead(39, &level39), PIO_BitRead(37, &level37), PIO_BitRead(32, &level32),
    };
    detach();
    for (int r : results)
        EXPECT_EQ(r, PIO_OK);
    EXPECT_EQ(level16, 1);
    EXPECT_EQ(level39, 1); // an input, whatever the output latch holds
    EXPECT_EQ(level37, 1);
    EXPECT_EQ(level32, 1);
    // A write puts back what it read: the latch of input pin 39 takes its level, unseen.
    json latches = read_json("state.json")["soc"]["gpio_out"];
    EXPECT_EQ(latches, json::array({0u, 0xa1u, 0x80000000u}));
    std::vector<std::pair<int, int>> changes;
    for (const json &p : trace("pin"))
        changes.emplace_back(p["pin"], p["level"]);
    EXPECT_EQ(changes,
              (std::vector<std::pair<int, int>>{{37, 1}, {63, 1}, {32, 1}, {63, 0}, {95, 1}}));

    // Each write is one read and one write of the whole bank register, in that order.
    std::vector<json> regs = trace("reg");
    ASSERT_GE(regs.size(), 2u);
    auto describe = [](const json &e) {
        return e["op"].get<std::string>() + " " + e["reg"].get<std::string>() + " " +
               e["value"].get<std::string>();
    };
    EXPECT_EQ(describe(regs[0]), "read GPIO1 0x00000080");
    EXPECT_EQ(describe(regs[1]), "write GPIO1 0x000000a0");
}

TEST_F(PinsOnBoard, AWindowThatCannotBeMappedFailsThePinFunctions) {
    change_config([](json &c) {
        c["faults"] = {{{"fault", "map_request"}, {"target", "S5LP"}, {"times", 2}},
                       {{"fault", "mmap"}, {"target", "S5LP"}, {"elsewhere", true}, {"times", 1}}};
    });
    testing::internal::CaptureStderr();
    attach();
    uint8_t level = 7;
    int refused_write = PIO_BitWrite(23, 1);
    int refused_read = PIO_BitRead(23, &level);
    int misplaced = PIO_BitWrite(23, 1);
    int mapped = sys_mmap(SYS_WINDOW_S5LP);
    int unmapped = sys_munmap(SYS_WINDOW_S5LP);
    detach();
    std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(refused_write, PIO_FAILED);
    EXPECT_EQ(refused_read, PIO_FAILED);
    EXPECT_EQ(level, 7);
    EXPECT_EQ(errors, "Error: Cannot mmap: (5) Input/output error\n"
                      "Error: Cannot mmap: (5) Input/output error\n"
                      "Error: Cannot mmap: (99) Cannot assign requested address\n");
    EXPECT_EQ(misplaced, PIO_FAILED);
    EXPECT_EQ(mapped, 0);
    EXPECT_EQ(unmapped, 0);
    // Refused requests map nothing; the misplaced mapping is released at once.
    std::vector<json> maps = trace("mmap");
    std::vector<json> unmaps = trace("munmap");
    ASSERT_EQ(maps.size(), 2u);
    EXPECT_NE(maps[0]["addr"], "0x80003000");
    EXPECT_EQ(maps[1]["addr"], "0x80003000");
    ASSERT_EQ(unmaps.size(), 2u);
    EXPECT_EQ(unmaps[0]["addr"], maps[0]["addr"]);
    EXPECT_TRUE(trace("pin").empty());
}

} // namespace
