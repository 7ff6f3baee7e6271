// A serial link driven by the test: the tool's end is one side of a socket pair that never
// blocks (a read with nothing queued returns at once, like the driver after its time-out), the
// test queues the microcontroller's replies on the other side and collects what was sent.
#pragma once

#include <cstdint>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace testlink {

using Bytes = std::vector<uint8_t>;

inline std::string hex(const Bytes &bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (uint8_t b : bytes) {
        text += kDigits[b >> 4];
        text += kDigits[b & 0xF];
    }
    return text;
}

// Bytes from hexadecimal text; blanks are ignored.
inline Bytes bytes(const std::string &text) {
    Bytes out;
    std::string digits;
    for (char c : text) {
        if (c != ' ')
            digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

// Appends the sum of the bytes, modulo 256.
inline Bytes sealed(Bytes frame) {
    uint8_t sum = 0;
    for (uint8_t b : frame)
        sum = static_cast<uint8_t>(sum + b);
    frame.push_back(sum);
    return frame;
}

// A reply of n bytes for a command: start byte, length, code, acknowledge byte, zeros with
// the given bytes set from offset 4 on, checksum.
inline Bytes reply(size_t n, uint8_t code, uint8_t ack, const Bytes &from4 = {}) {
    Bytes r(n - 1, 0);
    r[0] = 0x3A;
    r[1] = static_cast<uint8_t>(n - 2);
    r[2] = code;
    r[3] = ack;
    for (size_t i = 0; i < from4.size() && 4 + i < r.size(); ++i)
        r[4 + i] = from4[i];
    return sealed(r);
}

class ScriptedLink {
public:
    ScriptedLink() {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_) == 0) {
            fcntl(fds_[0], F_SETFL, O_NONBLOCK);
            fcntl(fds_[1], F_SETFL, O_NONBLOCK);
        }
    }
    ~ScriptedLink() {
        close(fds_[0]);
        close(fds_[1]);
    }
    ScriptedLink(const ScriptedLink &) = delete;
    ScriptedLink &operator=(const ScriptedLink &) = delete;

    int fd() const { return fds_[0]; }

    // Queues bytes for the tool to read.
    void queue(const Bytes &b, int times = 1) {
        for (int i = 0; i < times; ++i) {
            if (write(fds_[1], b.data(), b.size()) != static_cast<ssize_t>(b.size()))
                return;
        }
    }

    // Throws away what the tool has not read.
    void discard_unread() {
        uint8_t buf[4096];
        while (read(fds_[0], buf, sizeof buf) > 0) {
        }
    }

    // Everything the tool has sent since the last call.
    Bytes sent() {
        Bytes out;
        uint8_t buf[4096];
        ssize_t n;
        while ((n = read(fds_[1], buf, sizeof buf)) > 0)
            out.insert(out.end(), buf, buf + n);
        return out;
    }

private:
    int fds_[2] = {-1, -1};
};

} // namespace testlink
