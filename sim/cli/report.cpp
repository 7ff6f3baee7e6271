#include "report.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <vector>

using json = nlohmann::json;

namespace {

constexpr const char *kStartPrefix = "Start updating ";
constexpr const char *kRunEnd = "----- Updating is finished. -----";
constexpr double kBitsPerByte = 10; // start bit, 8 data bits, stop bit
constexpr double kNsPerSecond = 1e9;

struct Component {
    std::string name;
    uint64_t begin = 0;
    uint64_t end = 0;
    std::string result = "-";
    double unavoidable_ns = 0;
};

// The events of the last run: from its "start" to its "exit" (or the trace's end).
std::vector<json> last_run(const std::string &board_dir) {
    std::ifstream trace(board_dir + "/trace.jsonl");
    std::vector<json> events;
    std::string line;
    while (std::getline(trace, line)) {
        json event = json::parse(line, nullptr, false);
        if (event.is_discarded())
            continue;
        if (event.value("ev", "") == "start")
            events.clear();
        events.push_back(std::move(event));
    }
    return events;
}

// "Start updating TVM Hex..." names the component "TVM Hex"; what the updater prints on the
// same line after the dots is not part of the name.
std::string component_name(const std::string &text) {
    std::string name = text.substr(strlen(kStartPrefix));
    return name.substr(0, name.find('.'));
}

void note_result(Component &c, const std::string &text) {
    if (text.find("!!! Unable") != std::string::npos)
        c.result = "failed";
    else if (c.result == "-" && text.size() > 9 && text.ends_with("finished."))
        c.result = "ok";
}

std::vector<Component> split_run(const std::vector<json> &events) {
    std::vector<Component> parts(1);
    parts[0].name = "preparation";
    uint64_t start = events.front().value("t", uint64_t{0});
    parts[0].begin = start;
    double rate = 0;
    uint64_t end = start;
    for (const json &e : events) {
        uint64_t t = e.value("t", uint64_t{0});
        std::string ev = e.value("ev", "");
        end = std::max(end, t);
        Component &current = parts.back();
        if (ev == "output") {
            std::string text = e.value("text", "");
            text.erase(0, text.find_first_not_of('\r'));
            if (text.starts_with(kStartPrefix) || text == kRunEnd) {
                current.end = t;
                Component next;
                next.name = text == kRunEnd ? "closing" : component_name(text);
                next.begin = t;
                parts.push_back(next);
            } else if (current.name != "preparation" && current.name != "closing") {
                note_result(current, text);
            }
        } else if (ev == "sleep") {
            current.unavoidable_ns += e.value("ns", 0.0);
        } else if (ev == "uart_rate") {
            rate = e.value("rate", 0.0);
        } else if ((ev == "uart_frame" || ev == "uart_reply") && rate > 0) {
            double bytes = static_cast<double>(e.value("bytes", std::string()).size()) / 2;
            current.unavoidable_ns += bytes * kBitsPerByte * kNsPerSecond / rate;
        } else if (ev == "exit") {
            break;
        }
    }
    parts.back().end = end;
    return parts;
}

} // namespace

int board_time_report(const std::string &board_dir, FILE *out) {
    std::vector<json> events = last_run(board_dir);
    if (events.empty() || events.front().value("ev", "") != "start") {
        fprintf(stderr, "tvsim: no run in %s/trace.jsonl\n", board_dir.c_str());
        return 1;
    }
    std::vector<Component> parts = split_run(events);
    fprintf(out, "%-24s %14s %10s %-7s %12s\n", "component", "board ns", "board s", "result",
            "unavoidable");
    uint64_t total = 0;
    double unavoidable = 0;
    for (const Component &c : parts) {
        uint64_t ns = c.end - c.begin;
        total += ns;
        unavoidable += c.unavoidable_ns;
        fprintf(out, "%-24s %14llu %10.3f %-7s %11.3fs\n", c.name.c_str(),
                static_cast<unsigned long long>(ns), ns / kNsPerSecond, c.result.c_str(),
                c.unavoidable_ns / kNsPerSecond);
    }
    fprintf(out, "%-24s %14llu %10.3f %-7s %11.3fs\n", "run",
            static_cast<unsigned long long>(parts.back().end - parts.front().begin),
            static_cast<double>(total) / kNsPerSecond, "", unavoidable / kNsPerSecond);
    return 0;
}
