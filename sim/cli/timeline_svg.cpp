// The run as a self-contained SVG timeline: one row per component, its bar on a board-time axis
// from where it began to where it ended, the part time within it shaded, and its times written
// beside it.
#include "report.h"

#include <cmath>
#include <optional>

namespace tvsim::report {

namespace {

// The picture's layout, in pixels, and its colours.
struct Layout {
    double width = 1000;
    double label_width = 190;  // component names, left of the axis
    double values_width = 190; // times, right of the axis
    double top = 64;           // title and legend above the first row
    double row_height = 24;
    double bar_height = 16;
    double axis_height = 36;
    const char *own_colour = "#f2a93b";   // the tool's own share
    const char *wait_colour = "#9cc3ea";  // defined waits while no part is busy
    const char *busy_colour = "#2f5f9e";  // a part busy
    const char *empty_colour = "#999999"; // a component that took no time
    const char *failed_colour = "#c62828";
};

constexpr Layout kLayout;

// Text for an XML text node or attribute.
std::string escaped(const std::string &text) {
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

// A step of 1, 2 or 5 times a power of ten that puts about eight ticks on the axis.
double tick_step(double total_s) {
    double rough = std::max(total_s, 1e-6) / 8;
    double power = std::pow(10.0, std::floor(std::log10(rough)));
    for (double m : {1.0, 2.0, 5.0}) {
        if (m * power >= rough)
            return m * power;
    }
    return 10 * power;
}

class Picture {
public:
    Picture(const Run &run, FILE *out) : run_(run), out_(out), span_(run.time()) {
        plot_width_ = kLayout.width - kLayout.label_width - kLayout.values_width;
    }

    void draw() {
        double rows = static_cast<double>(run_.components.size());
        double height = kLayout.top + rows * kLayout.row_height + kLayout.axis_height;
        fprintf(out_,
                "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
                "viewBox=\"0 0 %.0f %.0f\" font-family=\"sans-serif\" font-size=\"12\">\n",
                kLayout.width, height, kLayout.width, height);
        fprintf(out_, "<rect width=\"100%%\" height=\"100%%\" fill=\"#ffffff\"/>\n");
        draw_heading();
        draw_axis(height - kLayout.axis_height);
        for (size_t i = 0; i < run_.components.size(); ++i)
            draw_row(run_.components[i], kLayout.top + static_cast<double>(i) * kLayout.row_height);
        fprintf(out_, "</svg>\n");
    }

private:
    double x_of(uint64_t ns) const {
        uint64_t total = std::max<uint64_t>(span_.length(), 1);
        return kLayout.label_width +
               plot_width_ * static_cast<double>(ns - span_.begin) / static_cast<double>(total);
    }

    void draw_heading() {
        uint64_t total = span_.length();
        uint64_t part = 0;
        for (const Component &c : run_.components)
            part += c.unavoidable_ns;
        fprintf(out_,
                "<text x=\"10\" y=\"22\" font-size=\"15\" font-weight=\"bold\">Board time of "
                "the update: %.3f s, of which %.3f s the parts and defined waits take</text>\n",
                seconds(total), seconds(part));
        double y = 42;
        legend(10, y, kLayout.busy_colour, "a part busy: bus bytes, erase, write, load");
        legend(330, y, kLayout.wait_colour, "defined waits");
        legend(470, y, kLayout.own_colour, "the tool's own share");
    }

    void legend(double x, double y, const char *colour, const char *text) {
        fprintf(out_,
                "<rect x=\"%.0f\" y=\"%.0f\" width=\"14\" height=\"10\" fill=\"%s\"/>"
                "<text x=\"%.0f\" y=\"%.0f\">%s</text>\n",
                x, y - 9, colour, x + 20, y, text);
    }

    void draw_axis(double y) {
        double total_s = seconds(span_.length());
        double step = tick_step(total_s);
        fprintf(out_,
                "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#555555\"/>\n",
                kLayout.label_width, y, kLayout.label_width + plot_width_, y);
        for (double s = 0; s <= total_s * (1 + 1e-9); s += step) {
            double x = kLayout.label_width + plot_width_ * (total_s > 0 ? s / total_s : 0);
            fprintf(out_,
                    "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#dddddd\"/>"
                    "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%g s</text>\n",
                    x, kLayout.top - 4, x, y, x, y + 16, s);
        }
    }

    void draw_row(const Component &c, double y) {
        double bar_y = y + (kLayout.row_height - kLayout.bar_height) / 2;
        bool failed = c.result == "failed";
        std::string marked = std::string(" fill=\"") + kLayout.failed_colour + "\"";
        fprintf(out_, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\"%s>%s</text>\n",
                kLayout.label_width - 8, bar_y + 12, failed ? marked.c_str() : "",
                escaped(c.name).c_str());
        double x = x_of(c.time.begin);
        double width = std::max(x_of(c.time.end) - x, 1.0);
        fprintf(out_,
                "<rect x=\"%.2f\" y=\"%.1f\" width=\"%.2f\" height=\"%.0f\" fill=\"%s\"%s>"
                "<title>%s: %.3f s, %.3f s unavoidable, %.3f s the tool's own (%s)</title>"
                "</rect>\n",
                x, bar_y, width, kLayout.bar_height,
                c.time.end > c.time.begin ? kLayout.own_colour : kLayout.empty_colour,
                failed
                    ? (" stroke=\"" + std::string(kLayout.failed_colour) + "\" stroke-width=\"2\"")
                          .c_str()
                    : "",
                escaped(c.name).c_str(), seconds(c.time.length()), seconds(c.unavoidable_ns),
                seconds(c.own_ns()), c.result.c_str());
        shade(run_.part_time, c.time, bar_y, kLayout.wait_colour);
        shade(run_.busy_time, c.time, bar_y, kLayout.busy_colour);
        fprintf(out_, "<text x=\"%.1f\" y=\"%.1f\">%.3f s (own %.3f s)</text>\n",
                kLayout.label_width + plot_width_ + 8, bar_y + 12, seconds(c.time.length()),
                seconds(c.own_ns()));
    }

    // A shaded stretch, in picture x.
    struct Stretch {
        double begin, end;
    };

    // The spans within a component, as shaded stretches; stretches less than half a pixel
    // apart are drawn as one, so that thousands of bus transfers make a few rectangles.
    void shade(const std::vector<Span> &spans, Span within, double bar_y, const char *colour) {
        std::optional<Stretch> open; // the stretch that the next span may still extend
        for (const Span &s : spans) {
            if (s.end <= within.begin || s.begin >= within.end)
                continue;
            double begin = x_of(std::max(s.begin, within.begin));
            double end = x_of(std::min(s.end, within.end));
            if (open && begin - open->end < 0.5) {
                open->end = std::max(open->end, end);
                continue;
            }
            if (open)
                stretch(*open, bar_y, colour);
            open = Stretch{begin, end};
        }
        if (open)
            stretch(*open, bar_y, colour);
    }

    void stretch(const Stretch &s, double bar_y, const char *colour) {
        fprintf(out_, "<rect x=\"%.2f\" y=\"%.1f\" width=\"%.2f\" height=\"%.0f\" fill=\"%s\"/>\n",
                s.begin, bar_y, std::max(s.end - s.begin, 0.5), kLayout.bar_height, colour);
    }

    const Run &run_;
    FILE *out_;
    Span span_;
    double plot_width_;
};

} // namespace

void write_timeline_svg(const Run &run, FILE *out) {
    Picture(run, out).draw();
}

} // namespace tvsim::report
