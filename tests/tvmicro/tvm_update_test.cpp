// The microcontroller's commands, firmware and EEPROM ones alike, over a link driven by the test.
#include "eeprom/eep_update.h"
#include "tvmicro/tvm_update.h"

#include <gtest/gtest.h>
#include <numeric>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::string hex(const Bytes &bytes) {
    std::string text;
    for (uint8_t b : bytes)
        text += std::string(1, "0123456789abcdef"[b >> 4]) + "0123456789abcdef"[b & 0xF];
    return text;
}

// A reply of n bytes: start byte, length, code, acknowledge byte, the given bytes padded with
// zeros, and the sum of them all.
Bytes reply(size_t n, uint8_t code, uint8_t ack = 0x30, const Bytes &from4 = {}) {
    Bytes r = Bytes{0x3A, static_cast<uint8_t>(n - 2), code, ack} + from4;
    r.resize(n - 1);
    return r + Bytes(1, static_cast<uint8_t>(std::accumulate(r.begin(), r.end(), 0)));
}

// The tool's end is one side of a socket pair that never blocks (a read with nothing queued
// returns at once, like the driver after its time-out); the test queues the microcontroller's
// replies on the other side and collects what was sent.
struct ScriptedLink {
    int fds[2] = {-1, -1};
    ScriptedLink() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds); }
    ~ScriptedLink() {
        close(fds[0]);
        close(fds[1]);
    }
    void queue(const Bytes &b) {
        EXPECT_EQ(write(fds[1], b.data(), b.size()), static_cast<ssize_t>(b.size()));
    }
    std::string sent() {
        uint8_t buf[8192];
        ssize_t n = read(fds[1], buf, sizeof buf);
        return hex(Bytes(buf, buf + (n > 0 ? n : 0)));
    }
};

// For each send from first to before last: what every send gives, then its own line.
std::string sends(int first, int last, const std::string &each, const char *own) {
    std::string out;
    char line[128];
    for (int t = first; t < last; ++t) {
        snprintf(line, sizeof line, own, t);
        out += each + line;
    }
    return out;
}

// One command on a link with these replies queued: what it returns and prints, and its frame,
// sent `times` times.
struct Exchange {
    std::string frame;
    int times;
    int result;
    int (*call)(int fd);
    Bytes replies = {};
    std::string output = "";
};

// The result, or 99 when the read filled other bytes than the block's 64.
int read_block(int fd) {
    Bytes buf(68, 0xEE);
    int result = ReadEeprom(fd, 0x0140, buf.data(), 64);
    return buf == Bytes(64, 0x11) + Bytes(4, 0xEE) ? result : 99;
}

const Bytes kBlockData(64, 0xA5);
const std::string kBlock = "3a45c012c000" + hex(kBlockData) + "51"; // address cut to 24 bits
const Bytes kFerundBlock = Bytes{0x12, 0x34} + Bytes(62, 0xFF);
const std::string kFerund = "3a45b70101401234" + hex(Bytes(62, 0xFF)) + "80";

int write_block(int fd) {
    return tvm_WriteFlash(fd, 0x0112C000, kBlockData.data());
}
int write_ferund(int fd) {
    return WriteEeprom(fd, 0x0140, kFerundBlock.data(), 64, 1);
}

// Each command sends its frame and reads its result from the reply it accepts. Replies that never
// come, or come refused, are read again or the frame is sent again as the command's exchange
// form allows, with the form's messages.
TEST(MicrocontrollerCommands, SendTheirFramesAndRetryAsTheirFormAllows) {
    const Exchange cases[] = {
        // the running bank: 2 only with bit 0x10 of reply byte 12
        {"3a02215d", 1, 1, tvm_GetStatus, reply(22, 0x21, 0, Bytes(9, 0xEF))},
        // a query needs no acknowledge and examines only its byte 4
        {"3a0283bf", 1, 0xFF, tvm_GetMicroID, reply(6, 0xEE, 0xEE, {0xFF})},
        {"3a0416010459", 1, 0, [](int fd) { return tvmuio_SetPort(fd, 1, 4); }, reply(5, 0x16)},
        {"3a041801045b", 1, 0, [](int fd) { return tvmuio_ClearPort(fd, 1, 4); }, reply(5, 0x18)},
        {"3a04230178da", 1, 0, [](int fd) { return tvm_SetGuarddogTime(fd, 1); }, reply(5, 0x23)},
        {"", 0, -1, [](int fd) { return tvm_EraseFlash(fd, 0); }},
        {"3a022b6700", 1, 0, [](int fd) { return tvm_PowerOnOff(fd, 1); }, reply(5, 0x2B)},
        {"3a022c6800", 1, 0, [](int fd) { return tvm_PowerOnOff(fd, 0); }, reply(5, 0x2C)},
        // single: send and read, ten times; 0x00 is no acknowledge
        {"3a03c101ff", 2, 0, tvm_SetFlashWritingMode, reply(5, 0xC1, 0) + reply(5, 0xC1)},
        {"3a03c101ff", 10, -1, tvm_SetFlashWritingMode, Bytes(10 * 5, 0)},
        // waiting: a failed read is read again, ten times a send; a refusal is sent again (as the
        // faults on the simulated board show)
        {"3a02c400", 1, 0, tvm_CloseWriteFlash, Bytes{1, 2, 3, 4, 5} + reply(5, 0xC4),
         "Uart NG Cmd = c4,0\n"},
        {"3a03c30202", 10, -1, [](int fd) { return tvm_EraseFlash(fd, 2); }, Bytes(),
         sends(0, 10, sends(0, 10, "", "**ERROR** Uart Not Return Cmd = 03 c3, retry = %x\n"),
               "Uart Return Timeout Cmd = 3a 03 c3,%x\n")},
        // block: a refusal is read again; after ten reads the block is sent again, five times
        {kBlock, 1, 0, write_block, reply(5, 0xC0, 0x31) + reply(5, 0xC0),
         "Uart Ack **ERROR** Cmd = 3a 45 c0, resp try = 0\n"},
        {kBlock, 5, -1, write_block, Bytes(),
         sends(0, 5, sends(0, 11, "", "Uart Ack **ERROR** Cmd = 3a 45 c0, resp try = %x\n"), "")},
        // value: send and read, ten times
        {"3a03c20201", 10, 0xFFFF, [](int fd) { return int{tvm_GetFlashCheckSum(fd, 2)}; },
         reply(7, 0xC2, 0x31, {0x12, 0x34}),
         "Uart Ack  ERROR: buf[3]=0x31, buf[4]=0x12 ,ret= 0x0  \n" +
             sends(1, 10, "", "Uart Not Return Cmd = 3a 03 c2,%x\n")},
        // EEPROM write: refused and busy replies are read again, ten times a send, five sends
        {kFerund, 1, 0, write_ferund,
         reply(6, 0xB7, 0x31) + reply(6, 0xB7, 0x30, {1}) + reply(6, 0xB7, 0x30),
         "Uart Ack **ERROR** Cmd = b7, resp try = 0\nEEP_WriteData Data0 = 1 : retrying 1\n"},
        {kFerund, 5, -1, write_ferund, Bytes(),
         sends(0, 5, sends(0, 10, "", "Uart Ack **ERROR** Cmd = b7, resp try = %x\n"),
               "Uart Not Return **ERROR** Cmd = b7, write try = %x\n")},
        // EEPROM read: send and read, ten times; a refused reply's data is taken all the same
        // a block is 64 bytes: any other length is refused before anything is sent
        {"", 0, -1, [](int fd) { return WriteEeprom(fd, 0x0140, kFerundBlock.data(), 2, 1); }},
        {"", 0, -1, [](int fd) { return ReadEeprom(fd, 0x0140, Bytes(64).data(), 4); }},
        {"3a06b80040014079", 10, -1, read_block, reply(70, 0xB8, 0x31, Bytes(65, 0x11)),
         "Uart Ack  ERROR: buf[3]=0x31, buf[4]=0x11 ,ret= 0x0  \n" +
             sends(1, 10, "", "Uart Not Return Cmd = b8,%x\n")},
    };
    for (const Exchange &c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        ScriptedLink link;
        link.queue(c.replies);
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.call(link.fds[0]), c.result);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.output);
        EXPECT_EQ(link.sent(), sends(0, c.times, c.frame, ""));
    }
}

// Replies of 1 to 255 bytes, read whole and checked; any other length reads nothing.
TEST(InUat, TakesExactlyTheReplyLengthAndChecksIt) {
    ScriptedLink link;
    uint8_t buf[5] = {};
    Bytes good = reply(5, 0xC4);
    link.queue(good);
    EXPECT_EQ(in_uat(link.fds[0], buf, 256), -1);
    EXPECT_EQ(in_uat(link.fds[0], buf, 0), -1);
    EXPECT_EQ(in_uat(link.fds[0], buf, 5), 0);
    // A reply cut short is no reply; its late remainder then spoils the next one.
    link.queue(Bytes(good.begin(), good.begin() + 3));
    EXPECT_EQ(in_uat(link.fds[0], buf, 5), -1);
    link.queue(Bytes(good.begin() + 3, good.end()) + good);
    EXPECT_EQ(in_uat(link.fds[0], buf, 5), -1);
}

TEST(LinkRate, DunlyModelsGetTheFastRate) {
    EXPECT_EQ(tvm_link_rate("DUNLY"), 208333);
    for (const char *other : {"dunly55", "DUNL", static_cast<const char *>(nullptr)})
        EXPECT_EQ(tvm_link_rate(other), 128906) << (other != nullptr ? other : "no name");
}

// Versions from F0 on only give way to newer ones; FF always installs.
TEST(FirmwareVersion, VerdictOfTheFileAgainstTheRunningVersion) {
    const struct {
        uint8_t file, running;
        VersionVerdict verdict;
    } cases[] = {
        {0xFF, 0xFF, VERSION_INSTALL}, {0x20, 0x20, VERSION_SAME},    {0x05, 0xEF, VERSION_INSTALL},
        {0x05, 0xF0, VERSION_REFUSED}, {0xF1, 0xF0, VERSION_INSTALL}, {0xF0, 0xF1, VERSION_REFUSED},
    };
    for (const auto &c : cases)
        EXPECT_EQ(judge_version(c.file, c.running), c.verdict) << +c.file << " " << +c.running;
}

// A model family is known by its first characters; what follows them does not matter.
TEST(FerundEeprom, ReachedByModelsOfTheKnownFamilies) {
    const struct {
        const char *model;
        bool allowed;
    } cases[] = {
        {"DUNLY", true},      {"DUNLY-55", true}, {"PHQD27K1X", true}, {"PHQD2WK1-2", true},
        {"LMQD2WJ1 B", true}, {"DUNL", false},    {"PHQD27K", false},  {"PHQD2WK", false},
        {"LMQD2WJ", false},   {"XDUNLY", false},  {"", false},         {nullptr, false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(ferund_allowed(c.model), c.allowed) << (c.model ? c.model : "(null)");
}

} // namespace
