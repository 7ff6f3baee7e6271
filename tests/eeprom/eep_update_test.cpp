#include "eeprom/eep_update.h"

#include "../tvmicro/scripted_link.h"

#include <functional>
#include <gtest/gtest.h>

namespace {

using testlink::Bytes;
using testlink::hex;
using testlink::reply;
using testlink::ScriptedLink;

const Bytes kErased(64, 0xFF);

Bytes times(const Bytes &b, int n) {
    Bytes out;
    for (int i = 0; i < n; ++i)
        out.insert(out.end(), b.begin(), b.end());
    return out;
}

TEST(MicrocontrollerEepromCommands, SendTheirFrames) {
    struct Case {
        const char *what;
        std::function<int(int)> call;
        std::string frame;
        Bytes answer;
        int result;
    } cases[] = {
        {"write, own EEPROM", [](int fd) { return WriteEeprom(fd, 0x0140, kErased.data(), 64, 0); },
         "3a45b7000140" + hex(kErased) + "37", reply(6, 0xB7, 0x30), 0},
        {"write, Ferund EEPROM",
         [](int fd) { return WriteEeprom(fd, 0x0140, kErased.data(), 64, 1); },
         "3a45b7010140" + hex(kErased) + "38", reply(6, 0xB7, 0x30), 0},
        {"write, short data padded",
         [](int fd) {
             const uint8_t two[] = {0x12, 0x34};
             return WriteEeprom(fd, 0, two, 2, 0);
         },
         "3a45b7000000"
         "1234" +
             hex(Bytes(62, 0xFF)) + "3e",
         reply(6, 0xB7, 0x30), 0},
        {"write without data",
         [](int fd) { return WriteEeprom(fd, 0, nullptr, 64, 0); },
         "",
         {},
         -1},
        {"read",
         [](int fd) {
             uint8_t buf[64];
             return ReadEeprom(fd, 0x0140, buf, sizeof buf);
         },
         "3a06b80040014079", reply(70, 0xB8, 0x30), 0},
        {"read without buffer", [](int fd) { return ReadEeprom(fd, 0, nullptr, 64); }, "", {}, -1},
        {"power on", [](int fd) { return tvm_PowerOnOff(fd, 1); }, "3a022b6700",
         reply(5, 0x2B, 0x30), 0},
        {"power off", [](int fd) { return tvm_PowerOnOff(fd, 2); }, "3a022c6800",
         reply(5, 0x2C, 0x30), 0},
        {"picture mute", tvm_setPictureMute, "3a03060144", reply(5, 0x06, 0x30), 0},
    };
    for (const Case &c : cases) {
        ScriptedLink link;
        link.queue(c.answer);
        EXPECT_EQ(c.call(link.fd()), c.result) << c.what;
        EXPECT_EQ(hex(link.sent()), c.frame) << c.what;
    }
}

std::string lines(const std::string &text, int from, int to) {
    std::string out;
    for (int i = from; i < to; ++i)
        out += text + "0123456789abcdef"[i] + "\n";
    return out;
}

TEST(MicrocontrollerEepromCommands, RetryWithTheirMessages) {
    struct Case {
        const char *what;
        std::function<int(int)> call;
        std::vector<Bytes> answers;
        int result;
        size_t frames_sent;
        std::string output;
    } cases[] = {
        {"write: busy ten times, then sent again",
         [](int fd) { return WriteEeprom(fd, 0, kErased.data(), 64, 0); },
         {times(reply(6, 0xB7, 0x30, {1}), 10), reply(6, 0xB7, 0x30)},
         0,
         2,
         lines("EEP_WriteData Data0 = 1 : retrying ", 0, 10) +
             "Uart Not Return **ERROR** Cmd = b7, write try = 0\n"},
        {"write: refused, then accepted without sending again",
         [](int fd) { return WriteEeprom(fd, 0, kErased.data(), 64, 0); },
         {reply(6, 0xB7, 0x31), reply(6, 0xB7, 0x30)},
         0,
         1,
         "Uart Ack **ERROR** Cmd = b7, resp try = 0\n"},
        {"write: never answered",
         [](int fd) { return WriteEeprom(fd, 0, kErased.data(), 64, 0); },
         {},
         -1,
         5,
         [] {
             std::string out;
             for (int send = 0; send < 5; ++send)
                 out += lines("Uart Ack **ERROR** Cmd = b7, resp try = ", 0, 10) +
                        "Uart Not Return **ERROR** Cmd = b7, write try = " + std::to_string(send) +
                        "\n";
             return out;
         }()},
        {"read: refused, then never answered",
         [](int fd) {
             uint8_t buf[64] = {};
             int result = ReadEeprom(fd, 0, buf, sizeof buf);
             return buf[0] == 0x5A && buf[63] == 0xA5 ? result : 99;
         },
         {reply(70, 0xB8, 0x31,
                [] {
                    Bytes b(65, 0);
                    b[1] = 0x5A; // reply byte 5, the first data byte
                    b[64] = 0xA5;
                    return b;
                }())},
         -1,
         10,
         "Uart Ack  ERROR: buf[3]=0x31, buf[4]=0x0 ,ret= 0x0  \n" +
             lines("Uart Not Return Cmd = b8,", 1, 10)},
    };
    for (const Case &c : cases) {
        ScriptedLink link;
        for (const Bytes &a : c.answers)
            link.queue(a);
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.call(link.fd()), c.result) << c.what;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.output) << c.what;
        Bytes sent = link.sent();
        EXPECT_EQ(sent.size(), c.frames_sent * (sent.empty() ? 0 : sent[1] + 2u)) << c.what;
    }
}

// The caller's buffer is filled only as far as its length.
TEST(MicrocontrollerEepromCommands, ReadFillsNoMoreThanTheLength) {
    ScriptedLink link;
    link.queue(reply(70, 0xB8, 0x30, Bytes(65, 0x11)));
    uint8_t buf[8] = {0, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(ReadEeprom(link.fd(), 0, buf, 4), 0);
    EXPECT_EQ(hex(Bytes(buf, buf + 8)), "11111111eeeeeeee");
}

TEST(EepTextFileNames, OnlyTheReservedEntry) {
    EXPECT_STREQ(GetEEPTextFile(0), "RESERVED");
    EXPECT_EQ(GetEEPTextFile(1), nullptr);
}

} // namespace
