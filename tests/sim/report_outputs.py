#!/usr/bin/env python3
"""tvsim report on a trace made by hand: the table's times, the trace-event JSON that trace
viewers open, and the SVG timeline as a real renderer draws it.

Usage: report_outputs.py TVSIM RSVG_CONVERT WORK_DIR
"""
import json
import os
import shutil
import struct
import subprocess
import sys
import xml.etree.ElementTree as ET
import zlib

S = 1_000_000_000  # ns

# An older run, then the last one: Alpha takes 4 s (parts busy 0-1 s, an FPGA load begun again
# on the way, and a sleep 1-2 s, then 2 s nothing), Beta 2 s (an EEPROM write cycle 4-5 s, then a time-out running out 5-6 s) and
# fails. The preparation and the closing have no result, whatever their lines say. An event after
# the exit belongs to no run.
OLD_RUN = [
    {"t": 0, "ev": "start", "pid": 1},
    {"t": 0, "ev": "output", "fd": 1, "text": "Start updating Old...", "line_end": True},
    {"t": 9 * S, "ev": "exit", "pid": 1},
]
LAST_RUN = [
    {"t": 0, "ev": "start", "pid": 2},
    {"t": 0, "ev": "output", "fd": 1, "text": "Copying is finished.", "line_end": True},
    {"t": 0, "ev": "output", "fd": 1, "text": "Start updating Alpha & <Co>...", "line_end": True},
    {"t": 0, "ev": "fpga_load", "fpga": 0, "image": True, "busy_ns": 1 * S},
    {"t": S // 2, "ev": "fpga_load", "fpga": 0, "image": True, "busy_ns": S // 2},  # begun again
    {"t": 2 * S, "ev": "sleep", "call": "usleep", "ns": 1 * S, "took_ns": 2 * S},
    {"t": 4 * S, "ev": "output", "fd": 1, "text": "Alpha updating is finished.", "line_end": True},
    {"t": 4 * S, "ev": "output", "fd": 1, "text": "Start updating Beta...", "line_end": True},
    {"t": 4 * S, "ev": "eeprom_write", "device": "pelto", "addr": 0, "count": 1, "busy_ns": 1 * S},
    {"t": 5 * S + S // 2, "ev": "register_read_ignored", "device": "pelto"},  # after a gap
    {"t": 6 * S, "ev": "uart_read", "asked": 4, "got": 0},
    {"t": 6 * S, "ev": "output", "fd": 1, "text": "!!! Unable to update Beta. !!!", "line_end": True},
    {"t": 6 * S, "ev": "output", "fd": 1, "text": "----- Updating is finished. -----",
     "line_end": True},
    {"t": 6 * S, "ev": "output", "fd": 1, "text": "!!! Unable to unmount. !!!", "line_end": True},
    {"t": 6 * S, "ev": "exit", "pid": 2},
    {"t": 7 * S, "ev": "i2c", "bus": 0, "took_ns": 1 * S, "msgs": []},
]

# name -> (board s, unavoidable s, tool's own s, result)
EXPECTED_TABLE = {
    "preparation": (0.0, 0.0, 0.0, "-"),
    "Alpha & <Co>": (4.0, 2.0, 2.0, "ok"),
    "Beta": (2.0, 1.0, 1.0, "failed"),
    "closing": (0.0, 0.0, 0.0, "-"),
    "run": (6.0, 3.0, 3.0, ""),
}

failures = []


def check(ok, what):
    if not ok:
        failures.append(what)


def check_table(text):
    lines = text.splitlines()
    check(lines[0].split()[:3] == ["component", "board", "ns"], "table heading: " + lines[0])
    rows = {}
    for line in lines[1:]:
        fields = line[25:].split()
        rows[line[:24].rstrip()] = (float(fields[1]), float(fields[2]), float(fields[3]),
                                    fields[4] if len(fields) > 4 else "")
    check(rows == EXPECTED_TABLE, f"table rows {rows}")


def check_trace_json(path):
    trace = json.load(open(path))
    events = trace["traceEvents"]
    names = {}
    slices = {}
    for e in events:
        for field in ("name", "ph", "pid", "tid"):
            check(field in e, f"event without {field}: {e}")
        check(e["ph"] in ("X", "i", "M"), f"phase {e['ph']}")
        if e["ph"] == "M":
            check(e["name"] in ("process_name", "thread_name", "thread_sort_index"), str(e))
            if e["name"] == "thread_name":
                names[e["tid"]] = e["args"]["name"]
            continue
        check(isinstance(e["ts"], (int, float)) and e["ts"] >= 0, f"ts of {e}")
        if e["ph"] == "X":
            check(isinstance(e["dur"], (int, float)) and e["dur"] >= 0, f"dur of {e}")
        else:
            check(e.get("s") in ("t", "p", "g") and "dur" not in e, f"instant {e}")
        slices.setdefault(e["tid"], []).append(e)
    # Slices on one track nest or follow each other, as viewers require of complete events.
    for tid, track in slices.items():
        check(tid in names, f"track {tid} has no name")
        spans = sorted((e["ts"], e["ts"] + e.get("dur", 0)) for e in track if e["ph"] == "X")
        for (b1, e1), (b2, e2) in zip(spans, spans[1:]):
            check(b2 >= e1 or e2 <= e1, f"slices overlap on {names.get(tid)}: {b1}-{e1}, {b2}-{e2}")
    by_name = {(names[e["tid"]], e["name"]): e for e in events if e["ph"] != "M"}
    wanted = {
        ("update run", "Alpha & <Co>"): (0, 4e6),
        ("update run", "Beta"): (4e6, 2e6),
        ("tool's waits", "sleep"): (0, 2e6),
        ("EEPROM pelto", "eeprom_write"): (4e6, 1e6),  # not stretched to the next event
        ("EEPROM pelto", "register_read_ignored"): (5.5e6, None),
        ("UART", "uart_read"): (6e6, None),
        ("console", "Start updating Beta..."): (4e6, None),
    }
    for key, (ts, dur) in wanted.items():
        e = by_name.get(key)
        check(e is not None and e["ts"] == ts and e.get("dur") == dur, f"{key}: {e}")
    check(by_name[("update run", "Beta")]["args"]["result"] == "failed", "Beta's result")
    loads = [(e["ts"], e["dur"]) for e in events if e["name"] == "fpga_load"]
    check(sorted(loads) == [(0, 0.5e6), (0.5e6, 0.5e6)], f"a load cut short by the next: {loads}")
    check(not any(n.startswith("I2C") for n in names.values()), "an event after the exit")


def png_pixels(path):
    """RGBA rows of an 8-bit RGBA or RGB PNG (what rsvg-convert writes)."""
    data = open(path, "rb").read()
    pos, idat, width, height, channels = 8, b"", 0, 0, 4
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour = struct.unpack(">IIBB", body[:10])
            assert depth == 8 and colour in (2, 6), (depth, colour)
            channels = 4 if colour == 6 else 3
        elif kind == b"IDAT":
            idat += body
        pos += 12 + length
    raw = zlib.decompress(idat)
    stride = width * channels
    rows, previous = [], bytearray(stride)
    for y in range(height):
        kind = raw[y * (stride + 1)]
        line = bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for x in range(stride):
            a = line[x - channels] if x >= channels else 0
            b = previous[x]
            c = previous[x - channels] if x >= channels else 0
            if kind == 1:
                line[x] = (line[x] + a) & 0xFF
            elif kind == 2:
                line[x] = (line[x] + b) & 0xFF
            elif kind == 3:
                line[x] = (line[x] + (a + b) // 2) & 0xFF
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[x] = (line[x] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 0xFF
        rows.append(line)
        previous = line
    return lambda x, y: tuple(rows[y][x * channels:x * channels + 3])


def check_svg(svg_path, rsvg, png_path):
    subprocess.run([rsvg, svg_path, "-o", png_path], check=True)
    pixel = png_pixels(png_path)
    svg = ET.parse(svg_path).getroot()
    colours, bars, fills = {}, {}, {}
    for rect in svg.iter("{http://www.w3.org/2000/svg}rect"):
        fill = rect.get("fill", "")
        if fill.startswith("#") and len(fill) == 7:
            colours.setdefault(fill, tuple(int(fill[i:i + 2], 16) for i in (1, 3, 5)))
        title = rect.find("{http://www.w3.org/2000/svg}title")
        if title is not None:
            name = title.text.split(":")[0]
            bars[name] = tuple(float(rect.get(k)) for k in ("x", "y", "width", "height"))
            fills[name] = fill
    check(set(bars) == {"preparation", "Alpha & <Co>", "Beta", "closing"}, f"bars {set(bars)}")
    # A component that took no time is grey; the others take the colour of the tool's own share.
    check(fills == {"preparation": "#999999", "closing": "#999999", "Alpha & <Co>": "#f2a93b",
                    "Beta": "#f2a93b"}, f"bar colours {fills}")

    def colour_at(bar, fraction):
        x, y, width, height = bars[bar]
        return pixel(int(x + width * fraction), int(y + height / 2))

    busy, wait, own = (colours[c] for c in ("#2f5f9e", "#9cc3ea", "#f2a93b"))
    # Alpha: busy 0-1 s, waiting 1-2 s, its own 2-4 s; Beta: busy 4-5 s, its own 5-6 s.
    for bar, fraction, colour in (("Alpha & <Co>", 0.1, busy), ("Alpha & <Co>", 0.4, wait),
                                  ("Alpha & <Co>", 0.75, own), ("Beta", 0.25, busy),
                                  ("Beta", 0.75, own)):
        check(colour_at(bar, fraction) == colour,
              f"{bar} at {fraction}: {colour_at(bar, fraction)} instead of {colour}")
    x, y, width, height = bars["Beta"]
    check(pixel(int(x + width * 0.3), int(y - 3)) == (255, 255, 255), "space between the rows")
    # The time axis runs from the run's start (Alpha's left edge) to its end (Beta's right edge).
    axis_lines = [line for line in svg.iter("{http://www.w3.org/2000/svg}line")
                  if line.get("stroke") == "#555555"]
    axis = [(float(line.get("x1")), float(line.get("x2"))) for line in axis_lines]
    check(len(axis) == 1 and abs(axis[0][0] - bars["Alpha & <Co>"][0]) < 0.1 and
          abs(axis[0][1] - (x + width)) < 0.1, f"time axis {axis}")
    # Its ticks: a whole second apart for the 6-second run, from its start to its end, each where
    # its time falls on the axis.
    texts = list(svg.iter("{http://www.w3.org/2000/svg}text"))
    tick_texts = [t for t in texts if t.get("text-anchor") == "middle"]
    ticks = [(float(t.get("x")), t.text) for t in tick_texts]
    check([label for _, label in ticks] == [f"{s} s" for s in range(7)], f"tick labels {ticks}")
    # The tick labels stand under the axis, itself under the bars.
    axis_y = float(axis_lines[0].get("y1"))
    lowest_bar = max(by + bh for _, by, _, bh in bars.values())
    tick_ys = [float(t.get("y")) for t in tick_texts]
    check(axis_y >= lowest_bar and min(tick_ys) > axis_y,
          f"tick labels at {tick_ys}, axis at {axis_y}, bars down to {lowest_bar}")
    left, right = axis[0]
    check(all(abs(tx - (left + (right - left) * s / 6)) < 0.1 for s, (tx, _) in enumerate(ticks)),
          f"tick places {ticks}")
    # No label is drawn over the plot: the names end left of it, the durations begin right of it.
    name_texts = [t for t in texts if t.get("text-anchor") == "end"]
    duration_texts = [t for t in texts if "(own " in (t.text or "")]
    names = [float(t.get("x")) for t in name_texts]
    durations = [float(t.get("x")) for t in duration_texts]
    check(len(names) == 4 and max(names) < left, f"name labels at {names}, plot from {left}")
    check(len(durations) == 4 and min(durations) > right,
          f"duration labels at {durations}, plot to {right}")
    # Both labels of a row stand on its bar's line.
    rows = sorted((by, by + bh) for _, by, _, bh in bars.values())
    name_ys = sorted(float(t.get("y")) for t in name_texts)
    duration_ys = sorted(float(t.get("y")) for t in duration_texts)
    check(len(rows) == 4 and all(top < n <= bottom and top < d <= bottom for (top, bottom), n, d
                                 in zip(rows, name_ys, duration_ys)),
          f"rows {rows}, names at {name_ys}, durations at {duration_ys}")


def main():
    tvsim, rsvg, work = sys.argv[1:4]
    shutil.rmtree(work, ignore_errors=True)  # no output of an earlier run may pass for this one's
    os.makedirs(work)
    with open(os.path.join(work, "trace.jsonl"), "w") as f:
        for e in OLD_RUN + LAST_RUN:
            f.write(json.dumps(e) + "\n")
    json_path, svg_path = os.path.join(work, "run.json"), os.path.join(work, "run.svg")
    table = subprocess.run([tvsim, "--board", work, "report", "--trace-json", json_path,
                            "--svg", svg_path], check=True, capture_output=True, text=True).stdout
    check_table(table)
    check_trace_json(json_path)
    check_svg(svg_path, rsvg, os.path.join(work, "run.png"))
    # A file that cannot be opened, and one whose buffered bytes fail when it is closed.
    for option, path in [("--svg", work + "/no/such.svg"), ("--trace-json", "/dev/full")]:
        failed = subprocess.run([tvsim, "--board", work, "report", option, path],
                                capture_output=True, text=True)
        check(failed.returncode == 1 and f"cannot write {path}" in failed.stderr,
              f"{path} written: {failed.returncode} {failed.stderr!r}")
    with open(os.path.join(work, "trace.jsonl"), "w") as f:
        f.write(json.dumps(LAST_RUN[-1]) + "\n")  # an event, but no program started
    no_run = subprocess.run([tvsim, "--board", work, "report"], capture_output=True, text=True)
    check(no_run.returncode == 1 and "no run in" in no_run.stderr, "a trace without a run")
    for failure in failures:
        print("FAIL:", failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
