// tvsim-cuse BOARD_DIR DEVICE: serves a device node of a tvsim board (e.g. /dev/uat_ucom) on a
// real Linux system through CUSE, until the system goes down; the VM rung runs it beside the
// board binary. The model's contents stay in the board directory as under tvsim (the
// microcontroller's banks and EEPROMs are written through; state.json at each close).
//
// The model's clock follows real time: before a request it is moved on to the real time that
// has passed since the server started (the program's own pauses and sleeps, and however long
// the system took), and a reply is held back until real time has caught up with the model's
// clock (a frame's wire time, the microcontroller's busy time, a read's time-out).
#include "cuse/cuse_server.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

using tvsim::kNsPerSecond;

namespace {

uint64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * kNsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

class RealTime {
public:
    explicit RealTime(tvsim::Board &board)
        : board_(board), start_(monotonic_ns()), base_(board.now_ns()) {}

    void move_board_on() {
        uint64_t real = now();
        if (board_.now_ns() < real)
            board_.pass_ns(real - board_.now_ns());
    }

    void wait_for_board() {
        uint64_t real = now();
        if (board_.now_ns() <= real)
            return;
        uint64_t ahead = board_.now_ns() - real;
        timespec pause{static_cast<time_t>(ahead / kNsPerSecond),
                       static_cast<long>(ahead % kNsPerSecond)};
        while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
        }
    }

private:
    uint64_t now() const { return base_ + (monotonic_ns() - start_); }

    tvsim::Board &board_;
    uint64_t start_;
    uint64_t base_;
};

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: tvsim-cuse BOARD_DIR DEVICE\n");
        return 2;
    }
    std::string error;
    std::unique_ptr<tvsim::Board> board = tvsim::Board::load(argv[1], &error);
    if (!board) {
        fprintf(stderr, "tvsim-cuse: %s\n", error.c_str());
        return 1;
    }
    int cuse = open("/dev/cuse", O_RDWR | O_CLOEXEC);
    if (cuse < 0) {
        perror("tvsim-cuse: /dev/cuse");
        return 1;
    }
    tvsim::CuseServer server(*board, argv[2]);
    RealTime clock(*board);
    std::vector<uint8_t> request(tvsim::CuseServer::kRequestBufferSize);
    for (;;) {
        ssize_t got = read(cuse, request.data(), request.size());
        if (got < 0 && (errno == EINTR || errno == EAGAIN || errno == ENOENT))
            continue; // ENOENT: the request was interrupted before it was read
        if (got <= 0) {
            if (got < 0 && errno != ENODEV)
                perror("tvsim-cuse: reading a request");
            break; // ENODEV: the device is gone
        }
        clock.move_board_on();
        std::vector<uint8_t> reply = server.handle(request.data(), static_cast<size_t>(got));
        clock.wait_for_board();
        // ENOENT: the request was interrupted meanwhile; its reply is not wanted.
        if (!reply.empty() && write(cuse, reply.data(), reply.size()) < 0 && errno != ENOENT) {
            perror("tvsim-cuse: replying");
            break;
        }
    }
    board->save();
    close(cuse);
    return 1;
}
