// The CUSE server's request decoding and replies, against the microcontroller of a default
// board (what the VM rung's /dev/uat_ucom runs on).
#include "cuse/cuse_server.h"
#include "support/board_fixture.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fuse.h>

namespace {

using Bytes = std::vector<uint8_t>;

template <typename T> Bytes request(uint32_t opcode, const T &arg, const Bytes &data = {}) {
    fuse_in_header in{};
    in.len = static_cast<uint32_t>(sizeof in + sizeof arg + data.size());
    in.opcode = opcode;
    in.unique = 77;
    Bytes bytes(reinterpret_cast<const uint8_t *>(&in), reinterpret_cast<const uint8_t *>(&in + 1));
    bytes.insert(bytes.end(), reinterpret_cast<const uint8_t *>(&arg),
                 reinterpret_cast<const uint8_t *>(&arg + 1));
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}

struct Reply {
    int error;
    Bytes body;
};

class CuseServerTest : public testsupport::BoardFixture {
protected:
    Reply ask(const Bytes &bytes) {
        Bytes out = server_->handle(bytes.data(), bytes.size());
        fuse_out_header header{};
        EXPECT_GE(out.size(), sizeof header);
        std::memcpy(&header, out.data(), std::min(out.size(), sizeof header));
        EXPECT_EQ(header.len, out.size());
        EXPECT_EQ(header.unique, 77u);
        return {-header.error, Bytes(out.begin() + sizeof header, out.end())};
    }
    void SetUp() override {
        BoardFixture::SetUp();
        board_ = load_board();
        ASSERT_TRUE(board_);
        server_ = std::make_unique<tvsim::CuseServer>(*board_, "/dev/uat_ucom");
    }
    std::unique_ptr<tvsim::Board> board_;
    std::unique_ptr<tvsim::CuseServer> server_;
};

TEST_F(CuseServerTest, NamesTheDeviceAndPassesAnExchangeToTheModel) {
    Reply init = ask(request(CUSE_INIT, cuse_init_in{FUSE_KERNEL_VERSION, 31, 0, 0}));
    cuse_init_out out{};
    ASSERT_EQ(init.error, 0);
    std::memcpy(&out, init.body.data(), sizeof out);
    EXPECT_EQ(out.major, uint32_t{FUSE_KERNEL_VERSION});
    EXPECT_EQ(out.max_write, tvsim::CuseServer::kMaxTransfer);
    EXPECT_EQ(std::string(init.body.begin() + sizeof out, init.body.end()),
              std::string("DEVNAME=uat_ucom", 17));

    Reply open = ask(request(FUSE_OPEN, fuse_open_in{O_RDWR, 0}));
    ASSERT_EQ(open.error, 0);
    uint64_t fh = reinterpret_cast<const fuse_open_out *>(open.body.data())->fh;
    // The rate by value, then the status query and its 22-byte reply.
    fuse_ioctl_in rate{fh, 0, 2001, 128906, 0, 0};
    EXPECT_EQ(ask(request(FUSE_IOCTL, rate)).error, 0);
    Reply sent =
        ask(request(FUSE_WRITE, fuse_write_in{fh, 0, 4, 0, 0, 0, 0}, {0x3A, 0x02, 0x21, 0x5D}));
    EXPECT_EQ(sent.body, Bytes({4, 0, 0, 0, 0, 0, 0, 0}));
    Reply status = ask(request(FUSE_READ, fuse_read_in{fh, 0, 22, 0, 0, O_RDWR, 0}));
    ASSERT_EQ(status.body.size(), 22u);
    EXPECT_EQ(Bytes(status.body.begin(), status.body.begin() + 4), Bytes({0x3A, 0x14, 0x21, 0x30}));
    // Nothing more has come: a non-blocking read fails at once.
    EXPECT_EQ(ask(request(FUSE_READ, fuse_read_in{fh, 0, 5, 0, 0, O_RDWR | O_NONBLOCK, 0})).error,
              EAGAIN);
    EXPECT_EQ(ask(request(FUSE_RELEASE, fuse_release_in{fh, O_RDWR, 0, 0})).error, 0);
    EXPECT_EQ(ask(request(FUSE_READ, fuse_read_in{fh, 0, 5, 0, 0, O_RDWR, 0})).error, EBADF);
}

TEST_F(CuseServerTest, RefusesWhatItCannotServe) {
    uint64_t fh = reinterpret_cast<const fuse_open_out *>(
                      ask(request(FUSE_OPEN, fuse_open_in{O_RDWR, 0})).body.data())
                      ->fh;
    Bytes write_short = request(FUSE_WRITE, fuse_write_in{fh, 0, 8, 0, 0, 0, 0}, {0x3A, 0x02});
    EXPECT_EQ(ask(write_short).error, EIO);
    EXPECT_EQ(ask(request(FUSE_IOCTL, fuse_ioctl_in{fh, 0, 0x5401, 0, 0, 0})).error, ENOTTY);
    EXPECT_EQ(ask(request(FUSE_POLL, fuse_poll_in{fh, 0, 0, 0})).error, ENOSYS);
    Bytes interrupt = request(FUSE_INTERRUPT, fuse_interrupt_in{77});
    EXPECT_TRUE(server_->handle(interrupt.data(), interrupt.size()).empty());
    tvsim::CuseServer other(*board_, "/dev/nothing");
    Bytes open = request(FUSE_OPEN, fuse_open_in{O_RDWR, 0});
    Bytes out = other.handle(open.data(), open.size());
    EXPECT_EQ(reinterpret_cast<const fuse_out_header *>(out.data())->error, -ENOENT);
}

} // namespace
