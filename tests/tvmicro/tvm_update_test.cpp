#include "tvmicro/tvm_update.h"

#include "scripted_link.h"

#include <functional>
#include <gtest/gtest.h>

namespace {

using testlink::bytes;
using testlink::Bytes;
using testlink::hex;
using testlink::reply;
using testlink::ScriptedLink;

Bytes counting_block() {
    Bytes block(64);
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<uint8_t>(i);
    return block;
}

TEST(MicrocontrollerCommands, SendTheirFramesAndReadTheirResults) {
    static const Bytes block = counting_block();
    struct Case {
        const char *what;
        std::function<int(int)> call;
        std::string frame;
        Bytes answer;
        int result;
    } cases[] = {
        {"status, bank 2 bit", tvm_GetStatus, "3a02215d",
         reply(22, 0x21, 0, {0, 0, 0, 0, 0, 0, 0, 0, 0x10}), 2},
        {"status, more bits", tvm_GetStatus, "3a02215d",
         reply(22, 0x21, 0, {0, 0, 0, 0, 0, 0, 0, 0, 0x30}), 2},
        {"status, all bits", tvm_GetStatus, "3a02215d",
         reply(22, 0x21, 0, {0, 0, 0, 0, 0, 0, 0, 0, 0xFF}), 2},
        {"status, no bit", tvm_GetStatus, "3a02215d", reply(22, 0x21, 0), 1},
        {"status, all but it", tvm_GetStatus, "3a02215d",
         reply(22, 0x21, 0, {0, 0, 0, 0, 0, 0, 0, 0, 0xEF}), 1},
        {"version, no acknowledge needed", tvm_GetSoftwareVersion, "3a022864",
         reply(6, 0x28, 0x00, {0x42}), 0x42},
        {"ID, first bytes not examined", tvm_GetMicroID, "3a0283bf",
         testlink::sealed({0, 0, 0, 0, 0xFF}), 0xFF},
        {"set port", [](int fd) { return tvmuio_SetPort(fd, 1, 0x04); }, "3a0416010459",
         reply(5, 0x16, 0x30), 0},
        {"clear port", [](int fd) { return tvmuio_ClearPort(fd, 1, 0x04); }, "3a041801045b",
         reply(5, 0x18, 0x30), 0},
        {"writing mode", tvm_SetFlashWritingMode, "3a03c101ff", reply(5, 0xC1, 0x30), 0},
        {"guard dog, mode 0", [](int fd) { return tvm_SetGuarddogTime(fd, 0); }, "3a04230078d9",
         reply(5, 0x23, 0x30), 0},
        {"guard dog, mode 1", [](int fd) { return tvm_SetGuarddogTime(fd, 1); }, "3a04230178da",
         reply(5, 0x23, 0x30), 0},
        {"erase bank 1", [](int fd) { return tvm_EraseFlash(fd, 1); }, "3a03c30101",
         reply(5, 0xC3, 0x30), 0},
        {"erase bank 2", [](int fd) { return tvm_EraseFlash(fd, 2); }, "3a03c30202",
         reply(5, 0xC3, 0x30), 0},
        {"erase bank 0 sends nothing", [](int fd) { return tvm_EraseFlash(fd, 0); }, "", {}, -1},
        {"checksum bank 1", [](int fd) { return int{tvm_GetFlashCheckSum(fd, 1)}; }, "3a03c20100",
         reply(7, 0xC2, 0x30, {0x12, 0x34}), 0x1234},
        {"checksum bank 2", [](int fd) { return int{tvm_GetFlashCheckSum(fd, 2)}; }, "3a03c20201",
         reply(7, 0xC2, 0x30, {0xAB, 0xCD}), 0xABCD},
        {"close write, sum 0", tvm_CloseWriteFlash, "3a02c400", reply(5, 0xC4, 0x30), 0},
        {"block at 0xC000", [](int fd) { return tvm_WriteFlash(fd, 0xC000, block.data()); },
         "3a45c000c000" + hex(block) + "df", reply(5, 0xC0, 0x30), 0},
        {"block address cut to 24 bits",
         [](int fd) { return tvm_WriteFlash(fd, 0x0112C000, block.data()); },
         "3a45c012c000" + hex(block) + "f1", reply(5, 0xC0, 0x30), 0},
        {"block without data sends nothing",
         [](int fd) { return tvm_WriteFlash(fd, 0, nullptr); },
         "",
         {},
         -1},
    };
    for (const Case &c : cases) {
        ScriptedLink link;
        link.queue(c.answer);
        EXPECT_EQ(c.call(link.fd()), c.result) << c.what;
        EXPECT_EQ(hex(link.sent()), c.frame) << c.what;
    }
}

std::string repeated(const std::function<std::string(int)> &line, int from, int to) {
    std::string out;
    for (int i = from; i < to; ++i)
        out += line(i);
    return out;
}

char digit(int i) {
    return "0123456789abcdef"[i];
}

int write_block(int fd) {
    static const Bytes block = counting_block();
    return tvm_WriteFlash(fd, 0, block.data());
}

int checksum_bank_2(int fd) {
    return tvm_GetFlashCheckSum(fd, 2);
}

std::string block_lines(int) {
    return repeated(
        [](int r) {
            return std::string("Uart Ack **ERROR** Cmd = 3a 45 c0, resp try = ") + digit(r) + "\n";
        },
        0, 11);
}

// Replies that never come, or come refused, are read again or resent as each exchange form
// allows, with the command's messages.
TEST(ExchangeForms, RetryAsTheirFormAllows) {
    struct Case {
        const char *what;
        std::function<int(int)> call;
        std::vector<Bytes> answers;
        size_t frames_sent;
        int result;
        std::string output;
    } cases[] = {
        {"single: nine refusals, then accepted",
         tvm_SetFlashWritingMode,
         {Bytes(9 * 5, 0), reply(5, 0xC1, 0x30)},
         10,
         0,
         ""},
        {"single: ten refusals", tvm_SetFlashWritingMode, {Bytes(10 * 5, 0)}, 10, -1, ""},
        {"single: 0x00 is no acknowledge",
         tvm_SetFlashWritingMode,
         {reply(5, 0xC1, 0x00), reply(5, 0xC1, 0x30)},
         2,
         0,
         ""},
        {"waiting: a failed read is read again, not resent",
         tvm_CloseWriteFlash,
         {Bytes{1, 2, 3, 4, 5}, reply(5, 0xC4, 0x30)},
         1,
         0,
         "Uart NG Cmd = c4,0\n"},
        {"waiting: a refusal is resent",
         [](int fd) { return tvm_EraseFlash(fd, 1); },
         {reply(5, 0xC3, 0x31), reply(5, 0xC3, 0x30)},
         2,
         0,
         "Uart Ack **ERROR** Cmd = 3a 03 c3,0\n"},
        {"waiting: never answered, 100 reads",
         [](int fd) { return tvm_EraseFlash(fd, 2); },
         {},
         10,
         -1,
         repeated(
             [](int t) {
                 return repeated(
                            [](int r) {
                                return std::string(
                                           "**ERROR** Uart Not Return Cmd = 03 c3, retry = ") +
                                       digit(r) + "\n";
                            },
                            0, 10) +
                        "Uart Return Timeout Cmd = 3a 03 c3," + digit(t) + "\n";
             },
             0, 10)},
        {"block: a refusal is read again, not resent",
         write_block,
         {reply(5, 0xC0, 0x31), reply(5, 0xC0, 0x30)},
         1,
         0,
         "Uart Ack **ERROR** Cmd = 3a 45 c0, resp try = 0\n"},
        {"block: ten refused reads, then sent again",
         write_block,
         {Bytes(50, 0), reply(5, 0xC0, 0x30)},
         2,
         0,
         block_lines(0)},
        {"block: five sends of ten reads", write_block, {}, 5, -1, repeated(block_lines, 0, 5)},
        {"value: a refusal is resent",
         checksum_bank_2,
         {reply(7, 0xC2, 0x31, {0x12, 0x34}), reply(7, 0xC2, 0x30, {0x12, 0x34})},
         2,
         0x1234,
         "Uart Ack  ERROR: buf[3]=0x31, buf[4]=0x12 ,ret= 0x0  \n"},
        {"value: ten tries",
         checksum_bank_2,
         {Bytes{0x3A}},
         10,
         0xFFFF,
         repeated(
             [](int t) { return std::string("Uart Not Return Cmd = 3a 03 c2,") + digit(t) + "\n"; },
             0, 10)},
    };
    for (const Case &c : cases) {
        ScriptedLink link;
        for (const Bytes &a : c.answers)
            link.queue(a);
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.call(link.fd()), c.result) << c.what;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.output) << c.what;
        Bytes sent = link.sent();
        EXPECT_EQ(sent.size(), c.frames_sent * (sent.size() > 1 ? sent[1] + 2u : 1)) << c.what;
    }
}

TEST(InUat, TakesExactlyTheReplyLengthAndChecksIt) {
    ScriptedLink link;
    uint8_t buf[5] = {};
    Bytes good = reply(5, 0xC4, 0x30);
    // A reply cut short is no reply; its late remainder then spoils the next one.
    link.queue(Bytes(good.begin(), good.begin() + 3));
    EXPECT_EQ(in_uat(link.fd(), buf, 5), -1);
    link.queue(Bytes(good.begin() + 3, good.end()));
    link.queue(good);
    EXPECT_EQ(in_uat(link.fd(), buf, 5), -1);
    link.discard_unread();
    // Any first bytes pass when the checksum matches them.
    link.queue(testlink::sealed({0xFF, 0xEE, 0xDD, 0x30}));
    EXPECT_EQ(in_uat(link.fd(), buf, 5), 0);
    EXPECT_EQ(in_uat(-1, buf, 5), -1);
    EXPECT_EQ(in_uat(link.fd(), nullptr, 5), -1);
    EXPECT_EQ(in_uat(link.fd(), buf, 256), -1);
    EXPECT_EQ(out_uat(link.fd(), nullptr, 4), -1);
    EXPECT_EQ(out_uat(-1, buf, 4), 0);
}

TEST(LinkRate, DunlyModelsGetTheFastRate) {
    EXPECT_EQ(tvm_link_rate("DUNLY"), 208333);
    EXPECT_EQ(tvm_link_rate("DUNLY55X"), 208333);
    EXPECT_EQ(tvm_link_rate("dunly55"), 128906);
    EXPECT_EQ(tvm_link_rate("DUNL"), 128906);
    EXPECT_EQ(tvm_link_rate(nullptr), 128906);
}

} // namespace
