// GPIO pins: the status codes of the PIO_ functions, and pin access on an attached board through
// the control device's register window.
#include "hw/systool.h"
#include "hw/utils.h"
#include "run/main.h"
#include "support/board_fixture.h"

#include <fcntl.h>
#include <set>
#include <string>

using testsupport::fault;
using testsupport::json;

namespace {

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
    EXPECT_EQ(get_pio(96, nullptr), -1);
    EXPECT_EQ(get_pio(-1, nullptr), -1);
    EXPECT_EQ(set_pio(-1, 1), -1);
    EXPECT_EQ(set_pio(5, 2), -1);
    EXPECT_EQ(PIO_OutputDataBitWrite2(64, 1), PIO_FAILED); // pin 96
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Invalid pin: 96Invalid pin: -1Invalid pin: -1Invalid level: 2Invalid pin: 96");
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

// An output pin that nothing drives from outside reads back the level last written to it; a pin
// driven from outside reads its driven level (any non-zero level is high), whatever was written.
TEST_F(PinsOnBoard, AnOutputReadsBackWhatWasWrittenUnlessDrivenFromOutside) {
    change_config([](json &c) { c["soc"]["pin_inputs"] = {{"70", 2}, {"71", 0}}; });
    attach();
    for (uint8_t written : {1, 0, 1}) {
        std::vector<int> levels;
        for (int pin : {23, 70, 71}) {
            uint8_t level = 7;
            ASSERT_EQ(PIO_BitWrite(pin, written), PIO_OK);
            ASSERT_EQ(PIO_BitRead(pin, &level), PIO_OK);
            levels.push_back(level);
        }
        EXPECT_EQ(levels, (std::vector<int>{written, 1, 0}));
    }
    detach();
    std::set<std::string> registers; // pin 23 is in bank 0, pins 70 and 71 in bank 2
    for (const json &access : trace("reg"))
        registers.insert(access.value("reg", ""));
    EXPECT_EQ(registers, (std::set<std::string>{"GPIO0", "GPIO2"}));
}

TEST_F(PinsOnBoard, AWindowThatCannotBeMappedFailsThePinFunctions) {
    change_config([](json &c) {
        c["faults"] = {fault("map_request", "S5LP", {{"times", 2}}),
                       fault("mmap", "S5LP", {{"elsewhere", true}, {"times", 1}})};
    });
    testing::internal::CaptureStderr();
    attach();
    uint8_t level = 7;
    EXPECT_EQ(PIO_BitWrite(23, 1), PIO_FAILED); // refused
    EXPECT_EQ(PIO_BitRead(23, &level), PIO_FAILED);
    EXPECT_EQ(level, 7);
    EXPECT_EQ(PIO_BitWrite(23, 1), PIO_FAILED); // misplaced
    EXPECT_EQ(sys_mmap(SYS_WINDOW_S5LP), 0);
    EXPECT_EQ(sys_munmap(SYS_WINDOW_S5LP), 0);
    detach();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error: Cannot mmap: (5) Input/output error\n"
              "Error: Cannot mmap: (5) Input/output error\n"
              "Error: Cannot mmap: (99) Cannot assign requested address\n");
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
