// Device memories in board files: what a read finds before any write, what a change leaves on
// disk, and what other processes of the board see.
#include "board/stored_cells.h"
#include "support/board_fixture.h"

#include <csignal>
#include <sys/wait.h>

namespace tvsim {
namespace {

class StoredCellsTest : public testsupport::BoardFixture {
protected:
    std::string path(const char *name) const { return (dir_ / name).string(); }
    std::string on_disk(const char *name) const {
        std::string bytes;
        return tvsim::read_file(path(name), &bytes) ? bytes : "(no file)";
    }
};

// A missing or short file reads as erased and a read leaves it as it is; the first change
// makes the full-size file, keeping the bytes a short file had.
TEST_F(StoredCellsTest, MissingAndShortFilesReadErased) {
    std::unique_ptr<Board> board = load_board();
    ASSERT_TRUE(board);
    ASSERT_TRUE(write_file(path("short.bin"), "ab"));
    StoredCells missing(*board, path("missing.bin"), 4), short_file(*board, path("short.bin"), 4);
    uint8_t seen[6];
    missing.read(2, seen, sizeof seen);
    EXPECT_EQ(std::string(seen, seen + 6), std::string(6, '\xff'));
    EXPECT_EQ(on_disk("missing.bin"), "(no file)");
    short_file.read(0, seen, 4);
    EXPECT_EQ(std::string(seen, seen + 4), "ab\xff\xff");

    const uint8_t x = 'x';
    missing.put(3, &x, 1);
    short_file.program(2, reinterpret_cast<const uint8_t *>("\x0f\x0f"), 2);
    EXPECT_EQ(on_disk("missing.bin"), "\xff\xff\xffx");
    EXPECT_EQ(on_disk("short.bin"), "ab\x0f\x0f");
    missing.erase(1, 10);
    EXPECT_EQ(on_disk("missing.bin"), std::string(4, '\xff'));
}

// Every process maps the file: a change is seen at once by another process of the board, and
// stays on disk when the process that made it is killed before it could write anything back.
TEST_F(StoredCellsTest, ChangesReachOtherProcessesAndOutliveAKill) {
    std::unique_ptr<Board> board = load_board();
    ASSERT_TRUE(board);
    StoredCells cells(*board, path("shared.bin"), 8);
    uint8_t seen[8];
    cells.read(0, seen, sizeof seen); // mapped before the other process writes

    pid_t child = fork();
    if (child == 0) {
        std::unique_ptr<Board> own = load_board();
        StoredCells(*own, path("shared.bin"), 8).put(2, reinterpret_cast<const uint8_t *>("ok"), 2);
        raise(SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    cells.read(0, seen, sizeof seen);
    EXPECT_EQ(std::string(seen, seen + 8), "\xff\xffok\xff\xff\xff\xff");
    EXPECT_EQ(on_disk("shared.bin"), "\xff\xffok\xff\xff\xff\xff");
}

} // namespace
} // namespace tvsim
