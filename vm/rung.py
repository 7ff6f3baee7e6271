#!/usr/bin/env python3
"""Runs each scenario of vm/scenarios.json on tvsim and on Debian's armhf kernel under
qemu-system-arm, and compares what the tool printed and what the flash and the TV
microcontroller hold afterwards. The VM runs the hard-float board build (in the initramfs);
with --armel-build, each scenario runs on the VM a second time with the soft-float build and
Debian's armel C library in its place.

Usage: rung.py --host-build build/host --vm-dir build/vm [--armel-build build/armel] [NAME...]
Exit status 0 when every scenario agrees on both rungs (after the differences listed in
vm/known-differences.json, each explained in docs/board.md), 1 otherwise.
"""
import argparse
import difflib
import hashlib
import json
import os
import re
import shutil
import socket
import struct
import subprocess
import sys
import tarfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)
MODEL = "DEMO-TV"


def run(cmd, **kw):
    subprocess.run(cmd, check=True, **kw)


def make_medium(work, scenario):
    medium = os.path.join(work, "medium")
    run([os.path.join(TOP, "tools/make-demo-medium.sh"), medium, MODEL], stdout=subprocess.DEVNULL)
    with open(os.path.join(medium, MODEL, "flashimg.lst"), "w") as f:
        f.write("".join(line + "\n" for line in scenario["list"]))
    for path in scenario.get("remove", []):
        shutil.rmtree(os.path.join(medium, MODEL, path))
    for source, copy in scenario.get("copy", []):
        shutil.copy(os.path.join(medium, MODEL, source), os.path.join(medium, MODEL, copy))
    return medium


def tree_sums(root):
    """'md5  ./path' lines for every file under root, as the VM's md5sum prints them."""
    lines = []
    for dirpath, _, files in os.walk(root):
        for name in files:
            path = os.path.join(dirpath, name)
            rel = "./" + os.path.relpath(path, root)
            with open(path, "rb") as f:
                lines.append((rel, hashlib.md5(f.read()).hexdigest()))
    return "".join(f"{digest}  {rel}\n" for rel, digest in sorted(lines))


def commands(scenario):
    """The programs a scenario runs, in order: by default tvupdate, `runs` times."""
    return scenario.get("commands", [["tvupdate", MODEL]] * scenario.get("runs", 1))


BOARD_PROGRAMS = ("tvupdate", "tvservice")


def nand_blocks(config):
    """First absolute block of each NAND partition, in board.json order (as nandsim lays
    them out)."""
    first, at = {}, 0
    for part in config["mtd"]:
        if part.get("type") == "nand":
            first[part["name"]] = at
            at += int(part["size"], 0) // int(part["erasesize"], 0)
    return first


# ---- the tvsim rung ----------------------------------------------------------------------

def tvsim_rung(work, scenario, medium, host_build):
    board = os.path.join(work, "board")
    tvsim = os.path.join(host_build, "tvsim")
    stick = scenario.get("stick", "fat")
    run([tvsim, "new", board] + (["--usb", medium] if stick != "none" else []),
        stdout=subprocess.DEVNULL)
    with open(os.path.join(board, "board.json")) as f:
        config = json.load(f)
    for disk in config["media"]["usb"]:
        if stick == "not-fat":
            disk["filesystem"] = "ext4"
        disk["appears_after_seconds"] = scenario.get("stick_after_seconds", 0)
    config["soc"].update(scenario.get("soc", {}))
    if "microcontroller" in scenario:
        config["microcontroller"].update(scenario["microcontroller"])
    for part in config["mtd"]:
        if part["name"] in scenario.get("nand_bad_blocks", {}):
            part["bad_blocks"] = scenario["nand_bad_blocks"][part["name"]]
    with open(os.path.join(board, "board.json"), "w") as f:
        json.dump(config, f, indent=2)
    if "microcontroller" in config:
        # The VM serves the microcontroller from the same board, as it is before the runs.
        vm_board = os.path.join(work, "tvboard")
        shutil.copytree(os.path.join(board, "tvm"), os.path.join(vm_board, "tvm"))
        for name in ("board.json", "state.json"):
            if os.path.exists(os.path.join(board, name)):
                shutil.copy(os.path.join(board, name), vm_board)
    results = {}
    for n, argv in enumerate(commands(scenario), 1):
        prog = os.path.join(host_build, argv[0]) if argv[0] in BOARD_PROGRAMS else argv[0]
        out = subprocess.run([tvsim, "--board", board, "--", prog] + argv[1:],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        results[f"run{n}.out"] = out.stdout.decode(errors="replace")
        results[f"run{n}.status"] = f"{out.returncode}\n"
    # The volumes as the runs left them.
    with open(os.path.join(board, "state.json")) as f:
        state = json.load(f)
    volumes = []
    for dev in state["ubi"]:
        for vol in dev["volumes"]:
            name = f"ubi{dev['number']}_{vol['id']}"
            volumes.append(f"{name} {vol['name']}\n")
            results[name] = tree_sums(os.path.join(board, "flash", name))
    results["volumes"] = "".join(sorted(volumes))
    for part in config["mtd"]:
        flash = os.path.join(board, "mtd", part["name"] + ".bin")
        if part.get("type") == "nor" and os.path.exists(flash):
            # The file may end early: the bytes after its end read as erased.
            with open(flash, "rb") as f:
                data = f.read()
            data += b"\xff" * (int(part["size"], 0) - len(data))
            results[part["name"] + ".md5"] = hashlib.md5(data).hexdigest() + "\n"
    if "microcontroller" in config:
        results["tvm"] = tree_sums(os.path.join(board, "tvm"))
        results["microcontroller"] = microcontroller_state(state)
        with open(os.path.join(board, "trace.jsonl")) as f:
            results["uart"] = uart_events(f.read())
    return config, results


def microcontroller_state(state):
    """The microcontroller's part of state.json as the rungs compare it: without the times,
    which count board time (virtual on tvsim, real in the VM)."""
    kept = {k: v for k, v in state.get("microcontroller", {}).items() if not k.endswith("_ns")}
    return json.dumps(kept, indent=1, sort_keys=True) + "\n"


def uart_events(trace):
    """The microcontroller's events of a trace (rate requests, frames taken, replies, short
    reads, guard dog resets), without their times (the board time and the part time before)."""
    lines = []
    for line in trace.splitlines():
        event = json.loads(line)
        if event["ev"].startswith("uart_") or event["ev"] == "guard_dog_reset":
            del event["t"]
            event.pop("took_ns", None)
            lines.append(json.dumps(event, sort_keys=True) + "\n")
    return "".join(lines)


# ---- the VM rung -------------------------------------------------------------------------

def stick_image(work, medium, kind):
    """A USB stick: an MBR with one partition from sector 2048, FAT (or zeros for not-fat)."""
    part = os.path.join(work, "part.img")
    if os.path.exists(part):
        os.remove(part)
    if kind == "not-fat":
        with open(part, "wb") as f:
            f.truncate(32 << 20)
    else:
        run(["mkfs.vfat", "-C", part, str(32 << 10)], stdout=subprocess.DEVNULL)
        run(["mcopy", "-s", "-i", part] + [os.path.join(medium, e) for e in os.listdir(medium)]
            + ["::/"])
    with open(part, "rb") as f:
        data = f.read()
    mbr = bytearray(1 << 20)
    mbr[446:462] = struct.pack("<B3sB3sII", 0, b"\xfe\xff\xff", 0x0C, b"\xfe\xff\xff", 2048,
                               len(data) // 512)
    mbr[510:512] = b"\x55\xaa"
    image = os.path.join(work, "stick.img")
    with open(image, "wb") as f:
        f.write(bytes(mbr) + data)
    os.remove(part)
    return image


def armel_files(build):
    """What the soft-float pass lays over the initramfs: that build's board programs in the
    hard-float ones' place, and the armel C library with its loader."""
    lib = "/usr/arm-linux-gnueabi/lib"
    return {"tvupdate": os.path.join(build, "tvupdate"),
            "tvservice": os.path.join(build, "tvservice"),
            "lib/ld-linux.so.3": os.path.join(lib, "ld-linux.so.3"),
            "lib/arm-linux-gnueabi/libc.so.6": os.path.join(lib, "libc.so.6")}


def scenario_cpio(work, scenario, config, overlay):
    """A second initramfs archive holding /scenario.sh, /commands and the overlay's files and
    folders (path in the VM: path here; the board directory /tvboard that tvsim_rung made when
    the board has a microcontroller), read by the VM's init."""
    soc = config.get("soc", {})
    vols = {dev["number"]: " ".join(f"{v['id']}:{v['name']}:{v['size']}" for v in dev["volumes"])
            for dev in config["ubi"]}
    # The VM's own bad blocks lie in backup and ubi_data, under UBI; a scenario adds its own,
    # numbered within their partition.
    bad = [600, 900, 2000]
    first = nand_blocks(config)
    for name, blocks in scenario.get("nand_bad_blocks", {}).items():
        bad += [first[name] + b for b in blocks]
    text = (f"revision={int(soc.get('revision', '0'), 0)}\n"
            f"boot_config={int(soc.get('boot_config', '0'), 0)}\n"
            f"nand_bad_blocks={','.join(str(b) for b in sorted(bad))}\n"
            f"volumes4=\"{vols.get(4, '')}\"\nvolumes5=\"{vols.get(5, '')}\"\n")
    tree = os.path.join(work, "scenario")
    os.makedirs(tree, exist_ok=True)
    with open(os.path.join(tree, "scenario.sh"), "w") as f:
        f.write(text)
    with open(os.path.join(tree, "commands"), "w") as f:
        f.write("".join(" ".join(argv) + "\n" for argv in commands(scenario)))
    for path, source in overlay.items():
        os.makedirs(os.path.dirname(os.path.join(tree, path)), exist_ok=True)
        if os.path.isdir(source):
            shutil.copytree(source, os.path.join(tree, path))
        else:
            shutil.copy(source, os.path.join(tree, path))
    archive = os.path.join(work, "scenario.cpio.gz")
    with open(archive, "wb") as out:
        cpio = subprocess.Popen(["cpio", "-o", "-H", "newc", "--quiet", "-R", "0:0"], cwd=tree,
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        gz = subprocess.Popen(["gzip", "-1"], stdin=cpio.stdout, stdout=out)
        for dirpath, dirs, files in os.walk(tree):
            dirs.sort()
            for name in dirs + sorted(files):
                path = os.path.relpath(os.path.join(dirpath, name), tree)
                cpio.stdin.write(path.encode() + b"\n")
        cpio.stdin.close()
        cpio.stdout.close()
        if gz.wait() or cpio.wait():
            raise RuntimeError("cannot pack the scenario")
    return archive


def qmp_plug(path):
    """Plugs the stick into the running VM through its QMP socket."""
    s = socket.socket(socket.AF_UNIX)
    s.connect(path)
    f = s.makefile("rw")
    f.readline()
    for cmd in ({"execute": "qmp_capabilities"},
                {"execute": "device_add",
                 "arguments": {"driver": "usb-storage", "bus": "xhci.0", "drive": "stick",
                               "id": "stickdev"}}):
        f.write(json.dumps(cmd) + "\n")
        f.flush()
        reply = json.loads(f.readline())
        while "event" in reply:
            reply = json.loads(f.readline())
        if "error" in reply:
            raise RuntimeError(f"QMP: {reply['error']}")
    s.close()


def vm_rung(work, scenario, medium, config, vm_dir, overlay, timeout=300):
    stick = scenario.get("stick", "fat")
    kernel = os.path.join(vm_dir, "fetch/root/boot",
                          "vmlinuz-" + open(os.path.join(vm_dir, "fetch/flavour")).read().strip())
    initrd = os.path.join(work, "initrd.gz")
    with open(initrd, "wb") as out:
        for part in (os.path.join(vm_dir, "base.cpio.gz"), scenario_cpio(work, scenario, config, overlay)):
            with open(part, "rb") as f:
                out.write(f.read())
    results_img = os.path.join(work, "results.img")
    with open(results_img, "wb") as f:
        f.truncate(8 << 20)
    qmp = os.path.join(work, "qmp.sock")
    cmd = ["qemu-system-arm", "-M", "virt,highmem=off", "-cpu", "cortex-a15", "-m", "512",
           "-nographic", "-no-reboot", "-nic", "none", "-kernel", kernel, "-initrd", initrd,
           "-append", "console=ttyAMA0 quiet panic=-1", "-qmp", f"unix:{qmp},server=on,wait=off",
           "-device", "qemu-xhci,id=xhci",
           "-drive", f"if=none,id=res,format=raw,file={results_img}",
           "-device", "virtio-blk-pci,drive=res"]
    late = scenario.get("stick_after_seconds", 0)
    if stick != "none":
        cmd += ["-drive", f"if=none,id=stick,format=raw,readonly=on,file={stick_image(work, medium, stick)}"]
        if not late:
            cmd += ["-device", "usb-storage,bus=xhci.0,drive=stick,id=stickdev"]
    console = open(os.path.join(work, "console.log"), "wb")
    started = time.monotonic()
    vm = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT)
    timer = threading.Timer(timeout, vm.kill)
    timer.start()
    booted = None
    for line in vm.stdout:
        console.write(line)
        if b"vm: run 1 starts" in line:
            booted = time.monotonic() - started
            if late and stick != "none":
                time.sleep(late)
                qmp_plug(qmp)
    vm.wait()
    timer.cancel()
    console.close()
    elapsed = time.monotonic() - started
    results = {}
    try:
        with tarfile.open(results_img) as tar:
            for member in tar.getmembers():
                if member.isfile():
                    results[os.path.basename(member.name)] = \
                        tar.extractfile(member).read().decode(errors="replace")
    except tarfile.ReadError:
        pass
    if "tvm" in results:
        state = json.loads(results.pop("tvboard_state.json", "{}"))
        results["microcontroller"] = microcontroller_state(state)
        results["uart"] = uart_events(results.get("tvboard_trace.jsonl", ""))
    return results, booted, elapsed


# ---- comparing ---------------------------------------------------------------------------

def load_known():
    with open(os.path.join(HERE, "known-differences.json")) as f:
        return json.load(f)


def normalize(name, text, rung, known):
    for rule in known:
        if rule["rung"] == rung and re.fullmatch(rule.get("file", ".*"), name):
            text = re.sub(rule["pattern"], rule["replacement"], text, flags=re.M)
    return text


def compare(tvsim, vm, known):
    diffs = []
    for name in sorted(set(tvsim) | set(vm)):
        if name in ("proc_mtd", "mounts", "tvboard_trace.jsonl"):
            continue
        a = normalize(name, tvsim.get(name, "(missing)\n"), "tvsim", known)
        b = normalize(name, vm.get(name, "(missing)\n"), "vm", known)
        if a != b:
            diffs += difflib.unified_diff(a.splitlines(True), b.splitlines(True),
                                          f"tvsim/{name}", f"vm/{name}")
    return "".join(diffs)


def save(folder, results):
    os.makedirs(folder, exist_ok=True)
    for name, text in results.items():
        with open(os.path.join(folder, name), "w") as f:
            f.write(text)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--host-build", default=os.path.join(TOP, "build/host"))
    ap.add_argument("--vm-dir", default=os.path.join(TOP, "build/vm"))
    ap.add_argument("--armel-build")
    ap.add_argument("names", nargs="*")
    args = ap.parse_args()
    boards = [("armhf", {})]
    if args.armel_build:
        boards.append(("armel", armel_files(args.armel_build)))
    with open(os.path.join(HERE, "scenarios.json")) as f:
        scenarios = json.load(f)
    known = load_known()
    failed = 0
    for scenario in scenarios:
        if args.names and scenario["name"] not in args.names:
            continue
        work = os.path.join(args.vm_dir, "scenarios", scenario["name"])
        shutil.rmtree(work, ignore_errors=True)
        os.makedirs(work)
        medium = make_medium(work, scenario)
        config, on_tvsim = tvsim_rung(work, scenario, medium, args.host_build)
        save(os.path.join(work, "tvsim"), on_tvsim)
        tvboard = os.path.join(work, "tvboard")
        shared = {"tvboard": tvboard} if os.path.isdir(tvboard) else {}
        for board, overlay in boards:
            vm_work = os.path.join(work, board)
            os.makedirs(vm_work)
            on_vm, booted, elapsed = vm_rung(vm_work, scenario, medium, config, args.vm_dir,
                                             {**shared, **overlay})
            save(os.path.join(vm_work, "vm"), on_vm)
            diff = compare(on_tvsim, on_vm, known) if on_vm else "the VM wrote no results\n"
            boot = f"{booted:.1f}" if booted is not None else "-"
            verdict = "same" if not diff else "DIFFERENT"
            print(f"vm rung: {scenario['name']:<15} {board}  {verdict:<9} (VM boot {boot} s, "
                  f"whole VM run {elapsed:.1f} s; results in {os.path.relpath(vm_work, TOP)})")
            if diff:
                failed += 1
                sys.stdout.write(diff)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
