// The board time of the last run on a board, per component of the update run: as a table, as a
// trace for standard trace viewers, and as a timeline picture.
#pragma once

#include "board/board.h"

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace tvsim::report {

using json = nlohmann::json;

// A stretch of board time, in ns.
struct Span {
    uint64_t begin = 0;
    uint64_t end = 0;
    uint64_t length() const { return end - begin; }
};

// Board time in seconds.
inline double seconds(uint64_t ns) {
    return static_cast<double>(ns) / kNsPerSecond;
}

// One section of the run: the preparation before the first component, a "Start updating"
// section, or the closing lines. Components split the run without gap or overlap.
struct Component {
    std::string name;
    Span time;
    std::string result = "-"; // "ok", "failed" or "-"
    uint64_t unavoidable_ns = 0;
    uint64_t own_ns() const { return time.length() - unavoidable_ns; }
};

struct Run {
    std::vector<json> events; // from its "start" to its "exit" (or the trace's end)
    std::vector<Component> components;
    // When a part was busy or a defined wait ran (the unavoidable time), merged and in order.
    std::vector<Span> part_time;
    // When a part was busy, leaving out the defined waits (sleeps).
    std::vector<Span> busy_time;
    Span time() const { return {components.front().time.begin, components.back().time.end}; }
};

// The part time an event records: "took_ns" ends at its time "t", "busy_ns" begins there. False
// when it records none.
bool part_span(const json &event, Span *span);
// The same without a sleep's own time (a "sleep" event's "ns" before its "t").
bool busy_span(const json &event, Span *span);

// Reads the last run of the board's trace.jsonl; false when it holds none.
bool read_last_run(const std::string &board_dir, Run *run);

// One line per component: board time, its unavoidable part, the tool's own share, the result.
void print_table(const Run &run, FILE *out);
// The run in the trace-event JSON format of chrome://tracing and Perfetto.
void write_trace_json(const Run &run, FILE *out);
// A self-contained SVG picture: a bar per component on a board-time axis, the unavoidable
// part shaded.
void write_timeline_svg(const Run &run, FILE *out);

} // namespace tvsim::report

// tvsim --board DIR report [--trace-json FILE] [--svg FILE]: prints the table and writes the
// files asked for. 0, or 1 when the trace holds no run or a file cannot be written.
int board_time_report(const std::string &board_dir, const std::string &trace_json_path,
                      const std::string &svg_path, FILE *out);
