// Scenario tests: the real tvupdate on a simulated board, run through the tvsim launcher,
// checked by its exact output, its exit status and the board's state afterwards.
#pragma once

#include "support/faults.h"

#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <source_location>
#include <string>
#include <vector>

namespace scenario {

using json = nlohmann::json;
using testsupport::fault;

struct RunResult {
    int exit_status = -1; // 0..255 as the shell sees it, or -1 when the program did not exit
    // Standard output and standard error, interleaved as written; host paths of the board's
    // file tree (in messages of shell commands) are shown as the board paths they stand for.
    std::string output;
};

// Where a program's output goes: a pipe, or a terminal (a pseudo-terminal without line-end
// translation), on which the C library writes each line as it is printed. Its standard input is
// /dev/null, or closed with no_input (output to a pipe), as a service may be started.
enum class Screen { pipe, terminal, no_input };

// A fresh board directory per test, under the build's scenario folder. The test fills the
// medium folder, makes the board, adjusts board.json if it needs faults or other hardware,
// runs programs on it and inspects its files.
class SimBoard {
public:
    SimBoard();
    ~SimBoard();
    SimBoard(const SimBoard &) = delete;
    SimBoard &operator=(const SimBoard &) = delete;

    // The medium's folder (filled before make()).
    std::string medium() const { return root_ + "/medium"; }
    // Writes a file below the medium folder, creating folders on the way.
    void medium_file(const std::string &relative, const std::string &contents) const;
    // Writes MODEL/flashimg.lst and MODEL/update_mode.conf on the medium.
    void medium_list(const std::string &model, const std::string &list) const;
    // Fills the medium folder with the sample medium for model (tools/make-demo-medium.sh).
    void demo_medium(const std::string &model) const;

    // Makes the board with the medium on a USB stick ("--usb"), an SD card ("--sd") or no
    // medium at all ("").
    void make(const std::string &slot = "--usb");
    // Makes the board anew, as make() last did, then replaces these top-level sections of its
    // board.json.
    void remake(const json &sections = json::object());

    // Power-cycles the board, as the operator does after every update.
    void reboot() const;

    // board.json: read, changed by change, written back.
    void change_config(const std::function<void(json &)> &change) const;
    // Appends one fault to board.json.
    void add_fault(const json &fault) const {
        change_config([&](json &c) { c["faults"].push_back(fault); });
    }

    // Runs a program on the board; "tvupdate" names the tool under test.
    RunResult run(const std::vector<std::string> &args, Screen screen = Screen::pipe) const;
    RunResult tvupdate(const std::vector<std::string> &args, Screen screen = Screen::pipe) const {
        return tool("tvupdate", args, screen);
    }
    // Runs the service tool of the build under test.
    RunResult tvservice(const std::vector<std::string> &args) const {
        return tool("tvservice", args);
    }

    // The board's directory and its files.
    std::string dir() const { return root_ + "/board"; }
    std::string path(const std::string &relative) const { return dir() + "/" + relative; }
    bool exists(const std::string &relative) const;
    std::string read(const std::string &relative) const;
    // Writes a board file, creating folders on the way (the tool's files are below "fs/").
    void write(const std::string &relative, const std::string &bytes) const;
    // The board's state.json.
    json state() const { return json::parse(read("state.json")); }
    // Names in a board folder, sorted ("" for a missing folder).
    std::string listing(const std::string &relative) const;
    // The trace events of one kind, or all of them.
    std::vector<json> trace(const std::string &kind = "") const;
    // How many frames of each command the microcontroller took, by command name.
    std::map<std::string, int> uart_frames() const;
    // Board time in seconds (the virtual clock).
    double board_seconds() const;

private:
    // Runs the named program of the build under test.
    RunResult tool(const std::string &name, const std::vector<std::string> &args,
                   Screen screen = Screen::pipe) const;
    std::string root_;
    std::string slot_;
};

// Base of every scenario test: gives each test a board, and skips the test when the tool
// binary for the variant under test (host, or the board build under qemu-arm) is not built.
class Scenario : public testing::Test {
protected:
    void SetUp() override;
    SimBoard board;
};

// True when the tool under test is the host build (host programs such as the mtd-utils can
// run beside it).
bool on_host();

// Checks a run's exit status and its whole output; a failure names the caller's line.
void expect_run(const RunResult &run, int exit_status, const std::string &output,
                std::source_location at = std::source_location::current());

// The text printf makes of fmt with up to two unsigned values.
std::string format(const char *fmt, unsigned a, unsigned b = 0);

// text, times over.
std::string repeated(const std::string &text, size_t times);

// length bytes of a repeatable pseudo-random pattern.
std::string pattern(size_t length, unsigned seed);

// The output lines a run prints before and after the steps, for a medium on a USB stick.
std::string run_prologue(const std::string &model);
std::string run_epilogue();

// Table rows of parameterised scenarios carry a name: it names the test and is what a failure
// shows of the row.
template <typename Row>
requires requires(const Row &row) {
    std::string(row.name);
}
void PrintTo(const Row &row, std::ostream *os) {
    *os << row.name;
}
struct RowName {
    template <typename Row> std::string operator()(const testing::TestParamInfo<Row> &info) const {
        return info.param.name;
    }
};

} // namespace scenario
