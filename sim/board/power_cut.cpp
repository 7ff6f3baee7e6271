// Power cuts. The events that change a device are counted in state.json ("power_cut"
// "events"), so the count runs on through every process of the board (the program, the shell
// commands' stand-in tools) and from run to run. After the event board.json names, the board
// loses power once: what lives in RAM goes (a reboot), the state is saved as a power loss
// leaves it, and the processes end at once with SIGKILL (no exit handlers, no buffered output
// written).
#include "board/power_cut.h"

#include "board/board.h"

#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace tvsim {

namespace {

// The events that change what a device holds or does: a cut falls after one of them.
constexpr std::string_view kCountedEvents[] = {
    "uart_frame", "mtd_write", "mtd_erase", "mtd_markbad", "i2c",       "spi",         "spidev",
    "shell",      "ubimkvol",  "ubirmvol",  "nor_program", "nor_erase", "mtd_writeoob"};

bool g_ends_caller = false;

bool counted(std::string_view kind) {
    for (std::string_view k : kCountedEvents) {
        if (k == kind)
            return true;
    }
    return false;
}

[[noreturn]] void die_now() {
    ::kill(::getpid(), SIGKILL);
    std::abort(); // not reached: SIGKILL cannot be caught
}

} // namespace

void power_cut_ends_caller() {
    g_ends_caller = true;
}

uint64_t Board::power_cut_after() const {
    return power_was_cut() ? 0
                           : number_from(member(member(config_, "power_cut"), "after_events"), 0);
}

bool Board::power_was_cut() const {
    return member(member(state_, "power_cut"), "cut").is_object();
}

bool Board::power_cut_is_next() const {
    uint64_t after = power_cut_after();
    return after != 0 && number_from(member(member(state_, "power_cut"), "events"), 0) + 1 == after;
}

size_t Board::done_before_power_cut(size_t count) {
    if (!power_cut_is_next() || member(member(config_, "power_cut"), "mid_write") != true)
        return count;
    size_t done = count / 2;
    state_["power_cut"]["done"] = done;
    state_["power_cut"]["of"] = count;
    return done;
}

uint64_t Board::count_for_power_cut(std::string_view kind, bool *cut_now) {
    if (power_cut_after() == 0 || !counted(kind))
        return 0;
    *cut_now = power_cut_is_next();
    json &record = state_["power_cut"];
    uint64_t number = number_from(member(record, "events"), 0) + 1;
    record["events"] = number;
    return number;
}

void Board::lose_power(const json &event) {
    json &record = state_["power_cut"];
    record["cut"] = event;
    json fields{{"after_events", record["events"]}, {"event", event["ev"]}};
    for (const char *key : {"done", "of"}) {
        if (record.contains(key))
            fields[key] = record[key];
    }
    trace("power_cut", fields);
    reboot();
    save();
    if (g_ends_caller && getenv("TVSIM_EXE") != nullptr) // run by a shell command of a run
        ::kill(::getppid(), SIGKILL);
    die_now();
}

void Board::end_if_power_cut_since(bool was_cut) {
    if (!was_cut && power_was_cut())
        die_now(); // another process of the board saw the power go; its state stands
}

} // namespace tvsim
