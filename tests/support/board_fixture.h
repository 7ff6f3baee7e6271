// Unit tests that call the tool's functions on a board of their own, attached in-process.
#pragma once

#include "board/board.h"
#include "board/create.h"
#include "interpose/control.h"
#include "support/faults.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace testsupport {

using json = nlohmann::json;

// What call prints on standard output (into a file of no path, so that attaching or detaching
// a board on the way does not matter).
template <typename Call> std::string printed(Call call) {
    fflush(stdout);
    int file = memfd_create("printed", 0);
    int saved = dup(1);
    dup2(file, 1);
    call();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::string text;
    char chunk[4096];
    for (ssize_t n = pread(file, chunk, sizeof chunk, 0); n > 0;
         n = pread(file, chunk, sizeof chunk, static_cast<off_t>(text.size())))
        text.append(chunk, static_cast<size_t>(n));
    close(file);
    return text;
}

// Standard input closed, as a service may be started, until restore() or the end of the scope.
class StandardInputClosed {
public:
    StandardInputClosed() : saved_(dup(STDIN_FILENO)) { close(STDIN_FILENO); }
    ~StandardInputClosed() { restore(); }
    StandardInputClosed(const StandardInputClosed &) = delete;
    StandardInputClosed &operator=(const StandardInputClosed &) = delete;
    void restore() {
        if (saved_ < 0)
            return;
        dup2(saved_, STDIN_FILENO);
        close(saved_);
        saved_ = -1;
    }

private:
    int saved_;
};

// A default board in a temporary folder of its own, removed after the test.
class BoardFixture : public testing::Test {
protected:
    void SetUp() override { make_board(); }
    // A new board in dir_, in place of the one there (not attached).
    void make_board(const tvsim::NewBoardOptions &options = {}) {
        const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
        dir_ = std::filesystem::temp_directory_path() /
               ("tvsim-" + std::string(test->test_suite_name()) + "." + std::to_string(getpid()));
        std::filesystem::remove_all(dir_);
        std::string error;
        tvsim::NewBoardOptions seeded = options; // the same device times on every run
        if (!seeded.seed)
            seeded.seed =
                std::hash<std::string>{}(std::string(test->test_suite_name()) + "." + test->name());
        ASSERT_TRUE(tvsim::create_board(dir_.string(), seeded, &error)) << error;
    }
    void TearDown() override {
        if (attached_)
            detach();
        std::filesystem::remove_all(dir_);
    }

    void attach() {
        ASSERT_EQ(tvsim_attach(dir_.c_str()), 0);
        attached_ = true;
    }
    void detach() {
        tvsim_detach();
        attached_ = false;
    }

    // The board as the simulator loads it, for tests of its parts without attaching.
    std::unique_ptr<tvsim::Board> load_board() const {
        std::string error;
        std::unique_ptr<tvsim::Board> board = tvsim::Board::load(dir_.string(), &error);
        EXPECT_TRUE(board) << error;
        return board;
    }
    json read_json(const char *name) const { return json::parse(std::ifstream(dir_ / name)); }
    std::string read_file(const char *name) const {
        std::ifstream in(dir_ / name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    void change_config(const std::function<void(json &)> &change) const {
        json config = read_json("board.json");
        change(config);
        std::ofstream(dir_ / "board.json") << config.dump(2);
    }
    void add_fault(const json &fault) const {
        change_config([&](json &c) { c["faults"].push_back(fault); });
    }
    // The trace events of one kind so far.
    std::vector<json> trace(const char *kind) const {
        std::vector<json> events;
        std::ifstream in(dir_ / "trace.jsonl");
        for (std::string line; std::getline(in, line);) {
            json e = json::parse(line);
            if (e["ev"] == kind)
                events.push_back(e);
        }
        return events;
    }

    std::filesystem::path dir_;
    bool attached_ = false;
};

} // namespace testsupport
