#!/usr/bin/env python3
"""Power cuts at every point of the sample update, and whether a second run repairs them.

Builds the sample medium, runs the whole update once on a fresh board (the reference), then for
each cut point makes a fresh board, cuts the power after that device event (board.json
"power_cut"), checks that the board would still start (boot loader and the microcontroller's
running bank whole), runs the same update again to its end, power-cycles and compares every
memory of the board with the reference. Prints a table grouped by where the cut fell and why a
point was not recovered. A benchmark, not a test: run it under nice, it takes long.

The cut points split into shards (--shard K/N: every N-th point from the K-th on), so that
several machines or GNU parallel can share a sweep; each shard writes its results (--results),
and --merge makes the one table of them all.

Usage: power-cut-sweep.py [--build build/host] [--rom-bytes N] [--step N] [--jobs J]
                          [--shard K/N] [--results FILE] [--markdown FILE]
       power-cut-sweep.py --merge FILE... [--markdown FILE]
"""
import argparse
import concurrent.futures
import hashlib
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

MODEL = "DEMO-TV"
HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# Events of these kinds are tried in full; the many transfers of the other kinds by --step.
BULK_KINDS = {"spi", "uart_frame", "i2c"}
BOOT_LOADER = "mtd/uboot-spi.bin"


def run(cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **kw)


def memory_digest(path):
    """A memory file's digest; a missing file and erased bytes at the end count as erased."""
    try:
        with open(path, "rb") as f:
            data = f.read()
    except FileNotFoundError:
        data = b""
    return hashlib.sha1(data.rstrip(b"\xff")).hexdigest()[:12]


def snapshot(board):
    """What survives a power cycle: volumes, memories, the persistent parts of the state."""
    snap = {}
    for top in ("flash", "fs/update"):
        for root, _, files in os.walk(os.path.join(board, top)):
            for name in files:
                path = os.path.join(root, name)
                with open(path, "rb") as f:
                    snap[os.path.relpath(path, board)] = hashlib.sha1(f.read()).hexdigest()[:12]
    for folder in ("tvm", "i2c", "mtd", "."):
        for name in sorted(os.listdir(os.path.join(board, folder))):
            if name.endswith(".bin"):
                snap[os.path.normpath(os.path.join(folder, name))] = memory_digest(
                    os.path.join(board, folder, name))
    try:
        with open(os.path.join(board, "state.json")) as f:
            state = json.load(f)
    except FileNotFoundError:  # a board that has not run anything yet
        state = {}
    snap["state:ubi"] = json.dumps(state.get("ubi"), sort_keys=True)
    snap["state:running_bank"] = str(state.get("microcontroller", {}).get("running_bank", 1))
    snap["state:nand_bad_blocks"] = json.dumps(state.get("nand_bad_blocks"), sort_keys=True)
    return snap


def component_of(key):
    if key.startswith("flash/") or key == "state:ubi":
        return "UBIFS volumes"
    if key.startswith("tvm/bank") or key == "state:running_bank":
        return "microcontroller firmware"
    if key.startswith("tvm/"):
        return "microcontroller EEPROMs"
    if key.startswith("i2c/"):
        return "I2C EEPROMs"
    if key == BOOT_LOADER:
        return "boot loader"
    if key.startswith("mtd/"):
        return "MTD"
    if key.startswith("spi_rom"):
        return "FPGA ROMs"
    return key


def cut_in_middle(event):
    """True for the writes a cut can strike in their middle (board.json "mid_write")."""
    if event["ev"] in ("mtd_write", "mtd_erase"):
        return event.get("length", 0) > 1 and "errno" not in event
    return event["ev"] == "spi" and event.get("tx", "").startswith("02")


def phase(event):
    """Events of one phase of a step: frames of one command, transfers to one device."""
    if event["ev"] == "i2c":
        return "i2c %s %s" % (event.get("bus"), event.get("msgs", [{}])[0].get("addr"))
    return "%s %s%s" % (event["ev"], event.get("cmd", ""), event.get("roms", ""))


def where(event):
    """The update step a cut event belongs to."""
    kind = event["ev"]
    if kind == "uart_frame" and event["cmd"] in ("set_port", "clear_port"):
        return "FPGA ROMs"  # the ports hand the SPI bus to the ROMs
    if kind == "uart_frame":
        return "microcontroller " + ("EEPROM" if "eeprom" in event["cmd"] else "firmware")
    if kind.startswith("mtd"):
        return "boot loader (%s)" % event["mtd"]
    if kind in ("spi", "spidev"):
        return "FPGA ROMs"
    if kind == "i2c":
        return "I2C EEPROM " + phase(event)[4:]
    command = event.get("command", "")
    if kind in ("ubimkvol", "ubirmvol") or "/update/ubi" in command:
        return "UBI volumes"
    if "update_tool.sh" in command:
        return "application installer"
    if command.startswith(("cp -rf /tmp/usb", "ln -s")):
        return "medium copy"
    if "insmod" in command or "modprobe" in command:
        return "kernel modules"
    if "rm -rf" in command or "cp -rf" in command:
        return "UBIFS data"
    return "shell: " + command.split()[0] if command else kind


class Sweep:
    def __init__(self, args):
        self.rom_bytes = args.rom_bytes
        self.build = os.path.abspath(args.build)
        self.tvsim = os.path.join(self.build, "tvsim")
        self.tool = os.path.join(self.build, "tvupdate")
        self.work = tempfile.mkdtemp(prefix="power-cut-")
        self.template = os.path.join(self.work, "template")

    def update(self, board):
        return run(["nice", "-n", "19", self.tvsim, "--board", board, "--", self.tool, MODEL],
                   cwd=self.work).returncode

    def reboot(self, board):
        run([self.tvsim, "--board", board, "reboot"], check=True)

    def make_template(self):
        medium = os.path.join(self.work, "medium")
        sizes = ["--rom-bytes", str(self.rom_bytes)] if self.rom_bytes else []
        run([os.path.join(HERE, "tools/make-demo-medium.sh")] + sizes + [medium, MODEL],
            check=True)
        # One seed for every shard: the same device times, so the same events to cut at.
        run([self.tvsim, "new", self.template, "--usb", medium, "--seed", "1"], check=True)
        # The board runs an older firmware and boot loader, as one in the field does.
        with open(os.path.join(self.template, "tvm/bank1.bin"), "r+b") as f:
            f.write(b"older firmware of bank 1. " * 900)
        os.makedirs(os.path.join(self.template, "mtd"), exist_ok=True)
        with open(os.path.join(self.template, BOOT_LOADER), "wb") as f:
            f.write((b"older boot loader " * 4000).ljust(1 << 20, b"\xff"))
        self.initial = snapshot(self.template)

    def fresh_board(self, name, power_cut):
        board = os.path.join(self.work, name)
        shutil.rmtree(board, ignore_errors=True)
        shutil.copytree(self.template, board, symlinks=True)
        path = os.path.join(board, "board.json")
        with open(path) as f:
            config = json.load(f)
        config["power_cut"] = power_cut
        with open(path, "w") as f:
            json.dump(config, f, indent=1)
        return board

    def reference(self):
        """Two uninterrupted runs: the board after one update, and after a second one."""
        board = self.fresh_board("reference", {"after_events": 1 << 40})
        status = self.update(board)
        if status != 0:
            sys.exit("the uninterrupted update failed with status %d" % status)
        self.reboot(board)
        self.after_one = snapshot(board)
        with open(os.path.join(board, "trace.jsonl")) as f:
            self.events = [e for e in map(json.loads, f) if "power_event" in e]
        self.update(board)
        self.reboot(board)
        self.after_two = snapshot(board)
        shutil.rmtree(board)

    def boot_problems(self, snap):
        """What keeps the board from starting after a cut: a boot loader or a running bank that
        is neither the old one nor the new one."""
        problems = []
        if snap[BOOT_LOADER] == memory_digest(os.devnull):
            problems.append("boot loader erased")
        elif snap[BOOT_LOADER] not in (self.initial[BOOT_LOADER], self.after_one[BOOT_LOADER]):
            problems.append("boot loader partly written")
        bank = "tvm/bank%s.bin" % snap["state:running_bank"]
        if snap[bank] not in (self.initial[bank], self.after_one[bank], self.after_two[bank]):
            problems.append("microcontroller running bank %s not whole" % snap[
                "state:running_bank"])
        return problems

    def try_cut(self, point, mid_write):
        cut = {"after_events": point, "mid_write": True} if mid_write else {"after_events": point}
        name = "cut%d%s" % (point, "m" if mid_write else "")
        board = self.fresh_board(name, cut)
        self.update(board)
        with open(os.path.join(board, "state.json")) as f:
            record = json.load(f).get("power_cut", {})
        if "cut" not in record:
            shutil.rmtree(board)
            return None
        after_cut = snapshot(board)
        problems = self.boot_problems(after_cut)
        status = self.update(board)
        self.reboot(board)
        final = snapshot(board)
        shutil.rmtree(board)
        differs = sorted({component_of(k) for k in final if final[k] != self.after_one.get(k)})
        if problems:
            outcome = "not recovered: board does not start (%s)%s" % (
                ", ".join(problems), "; a rerun, could it run, restores it" if status == 0 and (
                    not differs or final == self.after_two) else "")
        elif status != 0:
            outcome = "not recovered: rerun ended with status %d" % status
        elif not differs:
            outcome = "recovered"
        elif final == self.after_two:
            outcome = "recovered, as after two updates (%s)" % ", ".join(differs)
        else:
            outcome = "not recovered: %s differ" % ", ".join(differs)
        result = {"point": point, "mid_write": mid_write, "where": where(record["cut"]),
                  "event": record["cut"]["ev"], "outcome": outcome}
        print(json.dumps(result), flush=True)
        return result

    def points(self, step):
        """Every STEP-th transfer, every other event, and the first and last transfer of each
        run of transfers to one device or of one command (where a step begins and ends)."""
        labels = [phase(e) for e in self.events]
        chosen = []
        for i, e in enumerate(self.events):
            n = e["power_event"]
            edge = labels[i] != labels[max(i - 1, 0)] or labels[i] != labels[min(
                i + 1, len(labels) - 1)]
            if e["ev"] not in BULK_KINDS or n % step == 0 or edge:
                chosen.append((n, False))
                if cut_in_middle(e):
                    chosen.append((n, True))
        return chosen


def summary(shards):
    """The sweep's figures from its shards' first lines."""
    first = shards[0]
    count = first["shards"]
    seen = sorted(s["shard"] for s in shards)
    if seen != list(range(1, count + 1)):
        sys.exit("shards %s of %d given; a sweep needs each once" % (seen, count))
    return ("\n%d device events in the update, %d cut points in %d shard(s); the slowest "
            "shard took %.0f s with %d job(s)." % (first["events"], first["points"], count,
                                                    max(s["seconds"] for s in shards),
                                                    first["jobs"]))


def table(results):
    groups = {}
    for r in results:
        key = (r["where"], r["outcome"])
        g = groups.setdefault(key, {"tried": 0, "points": []})
        g["tried"] += 1
        g["points"].append("%d%s" % (r["point"], "½" if r["mid_write"] else ""))
    lines = ["| where the power went | outcome | cuts | cut points |", "|---|---|---|---|"]
    for (place, outcome), g in sorted(groups.items(), key=lambda kv: int(
            kv[1]["points"][0].rstrip("½"))):
        pts = g["points"]
        shown = ", ".join(pts if len(pts) <= 6 else pts[:3] + ["…"] + pts[-2:])
        lines.append("| %s | %s | %d | %s |" % (place, outcome, g["tried"], shown))
    recovered = sum(1 for r in results if r["outcome"].startswith("recovered"))
    lines.append("")
    lines.append("%d cut points tried, %d recovered by the rerun, %d not recovered." %
                 (len(results), recovered, len(results) - recovered))
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(HERE, "build/host"))
    parser.add_argument("--step", type=int, default=1,
                        help="try every STEP-th SPI, UART and I2C transfer (others: all)")
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--rom-bytes", type=int,
                        help="FPGA ROM images of this size on the medium (real ones: 2097152)")
    parser.add_argument("--shard", default="1/1",
                        help="K/N: try every N-th cut point from the K-th on")
    parser.add_argument("--results", help="write the shard's results to this file")
    parser.add_argument("--merge", nargs="+", metavar="FILE",
                        help="make the table of these shards' results; run nothing")
    parser.add_argument("--markdown", help="also write the table to this file")
    args = parser.parse_args()
    if args.merge:
        shards, results = [], []
        for name in args.merge:
            with open(name) as f:
                lines = [json.loads(line) for line in f]
            shards.append(lines[0])
            results += lines[1:]
        results.sort(key=lambda r: (r["point"], r["mid_write"]))
        text = table(results) + summary(shards)
    else:
        shard, shards = (int(n) for n in args.shard.split("/"))
        started = time.time()
        sweep = Sweep(args)
        try:
            sweep.make_template()
            sweep.reference()
            points = sweep.points(args.step)
            mine = points[shard - 1::shards]
            print("%d device events in the update; trying %d of its %d cut points" %
                  (len(sweep.events), len(mine), len(points)), flush=True)
            with concurrent.futures.ThreadPoolExecutor(args.jobs) as pool:
                results = [r for r in pool.map(lambda p: sweep.try_cut(*p), mine) if r]
        finally:
            shutil.rmtree(sweep.work, ignore_errors=True)
        head = {"shard": shard, "shards": shards, "events": len(sweep.events),
                "points": len(points), "jobs": args.jobs, "step": args.step,
                "seconds": time.time() - started}
        if args.results:
            with open(args.results, "w") as f:
                for line in [head] + results:
                    f.write(json.dumps(line) + "\n")
        text = table(results) + (summary([head]) if shards == 1 else
                                 "\nShard %d/%d of %d cut points, %.0f s with %d job(s)." %
                                 (shard, shards, len(points), head["seconds"], args.jobs))
    print(text)
    if args.markdown:
        with open(args.markdown, "w") as f:
            f.write(text + "\n")
    failed = [r for r in results if "running bank" in r["outcome"]]
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
