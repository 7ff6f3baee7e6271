#include "report.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>

namespace tvsim::report {

namespace {

constexpr const char *kStartPrefix = "Start updating ";
constexpr const char *kRunEnd = "----- Updating is finished. -----";

uint64_t time_of(const json &event) {
    return event.value("t", uint64_t{0});
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
    else if (c.result == "-" && text.ends_with("finished."))
        c.result = "ok";
}

// Components begin where the tool prints their "Start updating" line (or the run's closing
// line); the first one, the preparation, where the run starts.
std::vector<Component> split_into_components(const std::vector<json> &events) {
    std::vector<Component> parts(1);
    parts[0].name = "preparation";
    parts[0].time.begin = time_of(events.front());
    uint64_t end = parts[0].time.begin;
    for (const json &e : events) {
        end = std::max(end, time_of(e));
        if (e.value("ev", "") != "output")
            continue;
        std::string text = e.value("text", "");
        text.erase(0, text.find_first_not_of('\r'));
        Component &current = parts.back();
        if (text.starts_with(kStartPrefix) || text == kRunEnd) {
            current.time.end = time_of(e);
            Component next;
            next.name = text == kRunEnd ? "closing" : component_name(text);
            next.time.begin = time_of(e);
            parts.push_back(next);
        } else if (current.name != "preparation" && current.name != "closing") {
            note_result(current, text);
        }
    }
    parts.back().time.end = end;
    return parts;
}

// The events' spans within the run, merged where they touch or overlap.
std::vector<Span> merged_spans(const std::vector<json> &events, Span run,
                               bool (*span_of)(const json &, Span *)) {
    std::vector<Span> spans;
    for (const json &e : events) {
        Span s;
        if (span_of(e, &s) && s.begin < run.end && s.end > run.begin)
            spans.push_back({std::max(s.begin, run.begin), std::min(s.end, run.end)});
    }
    std::ranges::sort(spans, {}, &Span::begin);
    std::vector<Span> merged;
    for (const Span &s : spans) {
        if (!merged.empty() && s.begin <= merged.back().end)
            merged.back().end = std::max(merged.back().end, s.end);
        else
            merged.push_back(s);
    }
    return merged;
}

uint64_t overlap(const std::vector<Span> &spans, Span within) {
    uint64_t total = 0;
    for (const Span &s : spans) {
        uint64_t begin = std::max(s.begin, within.begin);
        uint64_t end = std::min(s.end, within.end);
        if (begin < end)
            total += end - begin;
    }
    return total;
}

void print_row(FILE *out, const std::string &name, uint64_t ns, uint64_t unavoidable,
               const std::string &result) {
    fprintf(out, "%-24s %14llu %10.3f %11.3f %10.3f%s%s\n", name.c_str(),
            static_cast<unsigned long long>(ns), seconds(ns), seconds(unavoidable),
            seconds(ns - unavoidable), result.empty() ? "" : "  ", result.c_str());
}

// Writes a file with one of the writers; false (and why on stderr) when it cannot be written.
bool write_file(const std::string &path, const Run &run, void (*writer)(const Run &, FILE *)) {
    std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path.c_str(), "w"), fclose);
    if (file == nullptr) {
        fprintf(stderr, "tvsim: cannot write %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    writer(run, file.get());
    if (ferror(file.get()) != 0 || fclose(file.release()) != 0) {
        fprintf(stderr, "tvsim: cannot write %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    return true;
}

} // namespace

bool part_span(const json &event, Span *span) {
    uint64_t t = time_of(event);
    uint64_t took = event.value("took_ns", uint64_t{0});
    uint64_t busy = event.value("busy_ns", uint64_t{0});
    *span = {t - std::min(took, t), t + busy};
    return took != 0 || busy != 0;
}

bool busy_span(const json &event, Span *span) {
    if (!part_span(event, span))
        return false;
    if (event.value("ev", "") == "sleep")
        span->end -= std::min(event.value("ns", uint64_t{0}), span->length());
    return span->end > span->begin;
}

bool read_last_run(const std::string &board_dir, Run *run) {
    std::ifstream trace(board_dir + "/trace.jsonl");
    std::vector<json> &events = run->events;
    events.clear();
    std::string line;
    bool ended = false;
    while (std::getline(trace, line)) {
        json event = json::parse(line, nullptr, false);
        if (event.is_discarded())
            continue;
        std::string kind = event.value("ev", "");
        if (kind == "start") {
            events.clear();
            ended = false;
        }
        if (!ended)
            events.push_back(std::move(event));
        ended = ended || kind == "exit";
    }
    if (events.empty() || events.front().value("ev", "") != "start")
        return false;
    run->components = split_into_components(events);
    run->part_time = merged_spans(events, run->time(), part_span);
    run->busy_time = merged_spans(events, run->time(), busy_span);
    for (Component &c : run->components)
        c.unavoidable_ns = overlap(run->part_time, c.time);
    return true;
}

void print_table(const Run &run, FILE *out) {
    fprintf(out, "%-24s %14s %10s %11s %10s  %s\n", "component", "board ns", "board s",
            "unavoidable", "tool's own", "result");
    for (const Component &c : run.components)
        print_row(out, c.name, c.time.length(), c.unavoidable_ns, c.result);
    print_row(out, "run", run.time().length(), overlap(run.part_time, run.time()), "");
}

} // namespace tvsim::report

int board_time_report(const std::string &board_dir, const std::string &trace_json_path,
                      const std::string &svg_path, FILE *out) {
    using namespace tvsim::report;
    Run run;
    if (!read_last_run(board_dir, &run)) {
        fprintf(stderr, "tvsim: no run in %s/trace.jsonl\n", board_dir.c_str());
        return 1;
    }
    print_table(run, out);
    bool written = trace_json_path.empty() || write_file(trace_json_path, run, write_trace_json);
    if (!svg_path.empty())
        written = write_file(svg_path, run, write_timeline_svg) && written;
    return written ? 0 : 1;
}
