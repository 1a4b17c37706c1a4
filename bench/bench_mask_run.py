#!/usr/bin/python3
"""Masked runs against the -nomask run of the same command on the same scene.

Makes WIDTH x HEIGHT x 6 UInt16 scenes with tav-make-scene: one whose fill (about a fifth of the
pixels, outside a turned rectangle) is 0 and declared as no-data, and the same pixels without the
declaration. Every row of RUNS is timed on both scenes, masked (the default) and with -nomask,
REPEAT times, the pairs interleaved so that a busy machine weighs on both sides alike; the minimum
time and the largest peak resident set are kept. Prints each as a ratio to its -nomask run, and
PCA's first component share with and without the mask.
Usage: bench_mask_run.py BIN_DIR WORK_DIR [SIDE] [REPEAT]
"""
import os
import subprocess
import sys
import time

import numpy as np
from osgeo import gdal

# One row per command: its name and its words before INPUT OUTPUT ({stats}: a statistics file).
RUNS = [
    ("kt", ["kt"]),
    ("pca", ["pca", "-stats", "{stats}"]),
    ("mnf", ["mnf", "-stats", "{stats}"]),
    # fft and dwt fill masked pixels with their band's mean: one band's spectrum, every band's quadrants.
    ("fft", ["fft", "-b", "1"]),
    ("dwt", ["dwt"]),
]
TARGET_MASKED, TARGET_PLAIN = 1.15, 1.05  # masked scene; scene without no-data

bin_dir, work = sys.argv[1], sys.argv[2]
side = int(sys.argv[3]) if len(sys.argv) > 3 else 4000
repeat = int(sys.argv[4]) if len(sys.argv) > 4 else 3
cli = os.path.join(bin_dir, "tavtransform")
os.makedirs(work, exist_ok=True)
plain, masked = os.path.join(work, "plain.tif"), os.path.join(work, "masked.tif")


def make_scenes():
    subprocess.run([os.path.join(bin_dir, "tav-make-scene"), plain, str(side), str(side), "6", "UInt16"], check=True)
    ds = gdal.Open(plain, gdal.GA_Update)
    y, x = np.mgrid[0:side, 0:side]
    c, s = np.cos(0.25), np.sin(0.25)
    u, v = (x - side / 2) * c + (y - side / 2) * s, -(x - side / 2) * s + (y - side / 2) * c
    inside = (np.abs(u) < 0.45 * side) & (np.abs(v) < 0.45 * side)
    for b in range(6):
        a = ds.GetRasterBand(b + 1).ReadAsArray()
        a[a == 0] = 1  # no valid pixel reads as the fill
        ds.GetRasterBand(b + 1).WriteArray(a)
    ds = None
    gdal.Translate(masked, plain)
    ds = gdal.Open(masked, gdal.GA_Update)
    for b in range(6):
        a = ds.GetRasterBand(b + 1).ReadAsArray()
        a[~inside] = 0
        ds.GetRasterBand(b + 1).WriteArray(a)
        ds.GetRasterBand(b + 1).SetNoDataValue(0)
    ds = None
    print("scene %d x %d x 6 UInt16, masked share %.3f" % (side, side, 1 - inside.mean()))


def timed(args):
    """Wall seconds, peak resident MiB of the process (by /usr/bin/time, so that this script's own
    size does not count), and its standard output."""
    report = os.path.join(work, "time.txt")
    # The last output and the scenes just made go to the disk first, not during the timed run.
    for name in ("o.tif", "s.sta"):
        if os.path.exists(os.path.join(work, name)):
            os.remove(os.path.join(work, name))
    os.sync()
    t = time.perf_counter()
    done = subprocess.run(["/usr/bin/time", "-o", report, "-f", "%M", cli, *args], capture_output=True, text=True)
    seconds = time.perf_counter() - t
    if done.returncode != 0:
        sys.exit("failed (%d): tavtransform %s\n%s" % (done.returncode, " ".join(args), done.stderr))
    with open(report) as f:
        kb = int(f.read().split()[-1])
    return seconds, kb / 1024.0, done.stdout


def command(words, scene, extra=()):
    st, o = os.path.join(work, "s.sta"), os.path.join(work, "o.tif")
    return [w.format(stats=st) for w in words[:1]] + ["-q", *extra] + [w.format(stats=st) for w in words[1:]] + [scene, o]


def compare(name, words, scene, label, target):
    on, off = [], []
    for _ in range(repeat):
        on.append(timed(command(words, scene)))
        off.append(timed(command(words, scene, ["-nomask"])))
    t_on, t_off = min(r[0] for r in on), min(r[0] for r in off)
    m_on, m_off = max(r[1] for r in on), max(r[1] for r in off)
    print("  %-5s %-15s %8.2f %8.2f  %5.3f (<= %.2f)  %8.1f %8.1f  %5.3f"
          % (name, label, t_on, t_off, t_on / t_off, target, m_on, m_off, m_on / m_off))


if not os.path.exists(masked):
    make_scenes()
print("Masked runs / the same run with -nomask, best of %d (seconds), peak resident MiB:" % repeat)
print("  %-5s %-15s %8s %8s  %-16s %8s %8s  %s" % ("run", "scene", "masked", "-nomask", "time ratio", "MiB", "MiB -nomask",
                                                   "memory ratio"))
for name, words in RUNS:
    compare(name, words, masked, "fill declared", TARGET_MASKED)
    compare(name, words, plain, "no no-data", TARGET_PLAIN)
for label, extra in [("masked", []), ("-nomask", ["-nomask"])]:
    out = timed(command(["pca", "-stats", "{stats}", "-stats-only"], masked, extra)[:-1])[2].splitlines()
    print("pca %-8s first component %s %% | %s" % (label, out[1].split()[2], out[-1] if "statistics" in out[-1] else "all pixels"))
