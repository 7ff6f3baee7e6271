// The run in the trace-event JSON format (an object with "traceEvents"), which chrome://tracing
// and Perfetto open: one process, the board, with a track (thread) per bus or device. The
// components are spans on the first track; every device event is a slice over the part time it
// records, or an instant when it records none.
#include "report.h"

#include <map>
#include <string_view>

namespace tvsim::report {

namespace {

constexpr int kBoardPid = 1;
constexpr double kNsPerUs = 1000.0;

// Which track an event goes to: the first rule whose kind its kind begins with. With a
// numbered_by field the track is one per value of that field ("I2C bus 0", "ROM 2").
struct TrackRule {
    std::string_view kind;
    std::string_view track;
    std::string_view numbered_by = {};
};

constexpr TrackRule kTrackRules[] = {
    {.kind = "output", .track = "console"},
    {.kind = "sleep", .track = "tool's waits"},
    {.kind = "uart_", .track = "UART"},
    {.kind = "i2c", .track = "I2C bus ", .numbered_by = "bus"},
    {.kind = "eeprom_write", .track = "EEPROM ", .numbered_by = "device"},
    {.kind = "register_", .track = "EEPROM ", .numbered_by = "device"},
    {.kind = "rom_busy", .track = "ROM ", .numbered_by = "rom"},
    {.kind = "spi", .track = "SPI"},
    {.kind = "fpga_load", .track = "FPGA ", .numbered_by = "fpga"},
    {.kind = "mtd_", .track = "MTD ", .numbered_by = "mtd"},
    {.kind = "nor", .track = "NOR"},
    {.kind = "vid", .track = "NOR"},
    {.kind = "reg", .track = "registers"},
    {.kind = "pin", .track = "GPIO"},
    {.kind = "shell", .track = "shell"},
    {.kind = "", .track = "kernel"}, // files, mounts, modules, UBI, everything else
};

std::string track_of(const json &event) {
    std::string kind = event.value("ev", "");
    for (const TrackRule &rule : kTrackRules) {
        if (!kind.starts_with(rule.kind))
            continue;
        std::string track(rule.track);
        if (!rule.numbered_by.empty() && event.contains(rule.numbered_by)) {
            const json &value = event[rule.numbered_by];
            track += value.is_string() ? value.get<std::string>() : value.dump();
        }
        return track;
    }
    return "kernel";
}

double microseconds(uint64_t ns) {
    return static_cast<double>(ns) / kNsPerUs;
}

// The writer of the events: tracks numbered in order of first use, and on each track a slice
// held back until the next one shows where it must end (a busy time cut short by a new start
// on the same device, such as an FPGA load begun again).
class TraceWriter {
public:
    explicit TraceWriter(FILE *out) : out_(out) {
        fputs("{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n", out_);
        write(json{{"name", "process_name"},
                   {"ph", "M"},
                   {"pid", kBoardPid},
                   {"tid", 0},
                   {"args", {{"name", "board"}}}});
    }

    void slice(const std::string &track, const std::string &name, Span span, json args) {
        int tid = tid_of(track);
        auto held = held_.find(tid);
        if (held != held_.end()) {
            json &previous = held->second;
            double begin = microseconds(span.begin);
            double end = previous["ts"].get<double>() + previous.value("dur", 0.0);
            if (previous["ph"] == "X" && end > begin)
                previous["dur"] = std::max(0.0, begin - previous["ts"].get<double>());
            write(previous);
        }
        json e{{"name", name}, {"pid", kBoardPid}, {"tid", tid}, {"ts", microseconds(span.begin)}};
        if (span.end > span.begin) {
            e["ph"] = "X";
            e["dur"] = microseconds(span.length());
        } else {
            e["ph"] = "i";
            e["s"] = "t";
        }
        e["args"] = std::move(args);
        held_[tid] = std::move(e);
    }

    // Writes the slices still held and ends the file.
    void finish() {
        for (const auto &[tid, event] : held_)
            write(event);
        fputs("\n]}\n", out_);
    }

private:
    int tid_of(const std::string &track) {
        auto [it, added] = tids_.try_emplace(track, static_cast<int>(tids_.size()) + 1);
        if (added) {
            write(json{{"name", "thread_name"},
                       {"ph", "M"},
                       {"pid", kBoardPid},
                       {"tid", it->second},
                       {"args", {{"name", track}}}});
            write(json{{"name", "thread_sort_index"},
                       {"ph", "M"},
                       {"pid", kBoardPid},
                       {"tid", it->second},
                       {"args", {{"sort_index", it->second}}}});
        }
        return it->second;
    }

    void write(const json &event) {
        fputs(first_ ? "" : ",\n", out_);
        fputs(event.dump(-1, ' ', false, json::error_handler_t::replace).c_str(), out_);
        first_ = false;
    }

    FILE *out_;
    bool first_ = true;
    std::map<std::string, int> tids_;
    std::map<int, json> held_;
};

json component_args(const Component &c) {
    return json{{"result", c.result},
                {"board_s", seconds(c.time.length())},
                {"unavoidable_s", seconds(c.unavoidable_ns)},
                {"own_s", seconds(c.own_ns())}};
}

} // namespace

void write_trace_json(const Run &run, FILE *out) {
    TraceWriter writer(out);
    for (const Component &c : run.components)
        writer.slice("update run", c.name, c.time, component_args(c));
    for (const json &event : run.events) {
        Span span;
        if (!part_span(event, &span))
            span = {event.value("t", uint64_t{0}), event.value("t", uint64_t{0})};
        json args = event;
        args.erase("t");
        args.erase("ev");
        std::string name = event.value("ev", "");
        if (name == "output")
            name = event.value("text", "");
        writer.slice(track_of(event), name, span, std::move(args));
    }
    writer.finish();
}

} // namespace tvsim::report
