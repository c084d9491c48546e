#!/usr/bin/python3
"""Runs the C host program on Linux and, cross-built, under Wine on the same
inputs, and checks that the two libraries computed the same:

- the FRF maps of every bin are identical;
- the cube values differ by at most 2e-6 of full scale (the largest value
  magnitude of the cube);
- the stability records decode to the same orders and pole classes, with
  every number equal within 1e-9 relative: the host program's noise-free
  three-mode system and, with --windows-cli, the stability command on one
  shared CSV of a noisy nine-channel system up to order 60.

Usage: compare_with_linux.py --linux-build DIR --windows-host EXE
                             --wine-run SCRIPT --schema DIR
                             [--windows-cli EXE] [--keep DIR]
"""
import argparse
import importlib
import os
import re
import shutil
import subprocess
import sys
import tempfile

import numpy as np

CUBE_TOLERANCE = 2e-6  # of full scale
# Relative. The fit uses its own elementary functions (stability/
# portable_math.h), not the C runtime's, so both libraries compute the same
# bits and the records are in fact byte-identical (printed below); the
# bound is the one the records must meet. Each field's worst difference is
# printed.
RECORD_TOLERANCE = 1e-9


def windows_path(path):
    """The path as a Windows program under Wine sees it (drive Z: is /)."""
    return "Z:" + os.path.abspath(path).replace("/", "\\")


def run(args, **kwargs):
    r = subprocess.run(args, capture_output=True, text=True, **kwargs)
    if r.returncode != 0:
        sys.exit("failed (%d): %s\n%s%s" % (r.returncode, " ".join(args), r.stdout, r.stderr))
    return r


def load_schema(schema_dir, work):
    out = os.path.join(work, "py")
    os.makedirs(out)
    protoc = shutil.which("protoc") or "/usr/bin/protoc"
    run([protoc, "--python_out=" + out, "-I" + schema_dir,
         os.path.join(schema_dir, "talproto.proto")])
    sys.path.insert(0, out)
    return importlib.import_module("talproto_pb2")


def compare_cubes(linux_dir, windows_dir, failures):
    # The numbered cube files; NAME.fft beside them is the completion record.
    numbered = re.compile(r".+_[0-9]{4,}\.fft$")
    names = sorted(f for f in os.listdir(linux_dir) if numbered.match(f))
    if not names or names != sorted(f for f in os.listdir(windows_dir) if numbered.match(f)):
        failures.append("cube files differ: %s vs %s" % (names, sorted(os.listdir(windows_dir))))
        return
    lin = np.concatenate([np.fromfile(os.path.join(linux_dir, n), "<f4") for n in names])
    win = np.concatenate([np.fromfile(os.path.join(windows_dir, n), "<f4") for n in names])
    if lin.shape != win.shape:
        failures.append("cube sizes differ: %d vs %d values" % (lin.size, win.size))
        return
    full_scale = float(np.max(np.abs(lin)))
    worst = float(np.max(np.abs(lin.astype(np.float64) - win)))
    print("cube: %d files, %d values, worst difference %.3g of full scale %.6g"
          % (len(names), lin.size, worst / full_scale, full_scale))
    if not np.all(np.isfinite(win)) or worst > CUBE_TOLERANCE * full_scale:
        failures.append("cube values differ by %.3g of full scale" % (worst / full_scale))


def compare_values(name, a, b, failures):
    a, b = np.asarray(a, float), np.asarray(b, float)
    if a.shape != b.shape:
        failures.append("%s: %d values vs %d" % (name, a.size, b.size))
        return
    if a.size == 0:
        return
    scale = np.maximum(np.abs(a), np.abs(b))
    relative = np.abs(a - b) / np.where(scale > 0, scale, 1.0)
    print("  %-28s worst relative difference %.2g" % (name, float(np.max(relative))))
    bad = np.abs(a - b) > RECORD_TOLERANCE * scale
    if np.any(bad):
        i = int(np.argmax(bad))
        failures.append("%s[%d]: %r vs %r" % (name, i, a.flat[i], b.flat[i]))


def complexes(values):
    return [v for c in values for v in (c.re, c.im)]


def compare_records(talproto, linux_file, windows_file, failures):
    records, raw = [], []
    for path in (linux_file, windows_file):
        r = talproto.stabChartData()
        with open(path, "rb") as f:
            raw.append(f.read())
        r.ParseFromString(raw[-1])
        records.append(r)
    lin, win = records
    print("record files: %s" % ("byte-identical" if raw[0] == raw[1] else "different bytes"))
    if lin.numOrders != win.numOrders:
        failures.append("numOrders %d vs %d" % (lin.numOrders, win.numOrders))
    for name in ("eigenFrequency", "dampingFactor", "selected_poles", "selected_dampingfactor"):
        compare_values(name, getattr(lin, name), getattr(win, name), failures)
    for name in ("frfnum", "residues", "frfm"):
        compare_values(name, complexes(getattr(lin, name)), complexes(getattr(win, name)),
                       failures)
    for name in ("lower_residual", "upper_residual"):
        if lin.HasField(name) != win.HasField(name):
            failures.append("%s present on one side only" % name)
        elif lin.HasField(name):
            compare_values(name, complexes([getattr(lin, name)]),
                           complexes([getattr(win, name)]), failures)
    if [e.order_num for e in lin.orderInfo] != [e.order_num for e in win.orderInfo]:
        failures.append("orders differ")
        return
    for a, b in zip(lin.orderInfo, win.orderInfo):
        for cls in ("s", "f", "d", "o"):
            compare_values("order %d class %s" % (a.order_num, cls), getattr(a, cls),
                           getattr(b, cls), failures)
    print("record: %d orders, %d selected poles, %d model lines"
          % (len(lin.orderInfo), len(lin.selected_poles), len(lin.frfm)))
    if not lin.selected_poles:
        failures.append("the known system gave no selected poles")


def compare_stability_command(args, work, talproto, failures):
    """Both command-line tools fit the same CSV (written once, on Linux)."""
    table = os.path.join(work, "frf.csv")
    linux_cli = os.path.join(args.linux_build, "frfcam")
    run([linux_cli, "synth-frf", table, "--lines", "1200", "--channels", "9", "--noise", "0.002",
         "--seed", "3"])
    records = [os.path.join(work, "cli_linux.pb"), os.path.join(work, "cli_windows.pb")]
    fit = ["--orders", "2:60"]
    run([linux_cli, "stability", table, "-o", records[0]] + fit)
    run([args.wine_run, args.windows_cli, "stability", windows_path(table), "-o",
         windows_path(records[1])] + fit)
    print("stability command, 9 noisy channels:")
    compare_records(talproto, records[0], records[1], failures)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--linux-build", required=True)
    parser.add_argument("--windows-host", required=True)
    parser.add_argument("--wine-run", required=True)
    parser.add_argument("--schema", required=True)
    parser.add_argument("--windows-cli", help="frfcam.exe, for the stability command's records")
    parser.add_argument("--keep", help="work in this folder and keep it")
    args = parser.parse_args()

    work = args.keep or tempfile.mkdtemp(prefix="frfcam-win-compare-")
    try:
        talproto = load_schema(args.schema, work)
        source = os.path.join(work, "source")
        os.makedirs(source)
        # 12-bit frames over two division files, with an odd frame count.
        run([os.path.join(args.linux_build, "frfcam"), "synth", os.path.join(source, "cap.hdr"),
             "--width", "40", "--height", "24", "--frames", "301", "--frames-per-file", "200",
             "--seed", "11"])
        sides = {}
        for side in ("linux", "windows"):
            top = os.path.join(work, side)
            shutil.copytree(source, top)
            os.makedirs(os.path.join(top, "out"))
            sides[side] = top
        lin, win = sides["linux"], sides["windows"]
        run([os.path.join(args.linux_build, "host_run"), os.path.join(lin, "cap.hdr"),
             os.path.join(lin, "cap_reference.txt"), os.path.join(lin, "out")])
        run([args.wine_run, args.windows_host, windows_path(os.path.join(win, "cap.hdr")),
             windows_path(os.path.join(win, "cap_reference.txt")),
             windows_path(os.path.join(win, "out"))])

        failures = []
        maps = [open(os.path.join(top, "out", "maps.bin"), "rb").read() for top in (lin, win)]
        print("maps: %d bytes, %s" % (len(maps[0]), "identical" if maps[0] == maps[1] else
                                      "DIFFERENT"))
        if not maps[0] or maps[0] != maps[1]:
            failures.append("maps differ")
        compare_cubes(os.path.join(lin, "cap"), os.path.join(win, "cap"), failures)
        compare_records(talproto, os.path.join(lin, "out", "record.pb"),
                        os.path.join(win, "out", "record.pb"), failures)
        if args.windows_cli:
            compare_stability_command(args, work, talproto, failures)
        for f in failures:
            print("FAIL:", f)
        return 1 if failures else 0
    finally:
        if not args.keep:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
