#!/usr/bin/python3
"""Masked against unmasked runs of kt, pca and mnf on a tilted-footprint scene.

Makes WIDTH x HEIGHT x 6 UInt16 scenes with tav-make-scene: one whose fill (about a fifth of the
pixels, outside a turned rectangle) is 0 and declared as no-data, and the same pixels without the
declaration. Each run is timed REPEAT times, the pairs interleaved so that a busy machine weighs on
both sides alike; the minimum is kept. Prints the ratios and PCA's first component share.
Usage: bench_mask_run.py BIN_DIR WORK_DIR [SIDE] [REPEAT]
"""
import os
import subprocess
import sys
import time

import numpy as np
from osgeo import gdal

bin_dir, work = sys.argv[1], sys.argv[2]
side = int(sys.argv[3]) if len(sys.argv) > 3 else 4000
repeat = int(sys.argv[4]) if len(sys.argv) > 4 else 3
cli = os.path.join(bin_dir, "tavtransform")
os.makedirs(work, exist_ok=True)
plain, masked = os.path.join(work, "plain.tif"), os.path.join(work, "masked.tif")

if not os.path.exists(masked):
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
    print("masked share %.3f" % (1 - inside.mean()))


def timed(args):
    t = time.perf_counter()
    out = subprocess.run([cli, *args], check=True, capture_output=True, text=True).stdout
    return time.perf_counter() - t, out


def compare(name, a, b):
    ta, tb = [], []
    for _ in range(repeat):
        ta.append(timed(a)[0])
        tb.append(timed(b)[0])
    print("%-28s %7.2f s %7.2f s  ratio %.3f" % (name, min(ta), min(tb), min(ta) / min(tb)))


o, st = os.path.join(work, "o.tif"), os.path.join(work, "s.sta")
compare("kt masked / -nomask", ["kt", "-q", masked, o], ["kt", "-q", "-nomask", masked, o])
compare("kt no no-data / -nomask", ["kt", "-q", plain, o], ["kt", "-q", "-nomask", plain, o])
compare("pca masked / -nomask", ["pca", "-q", "-stats", st, masked, o], ["pca", "-q", "-nomask", "-stats", st, masked, o])
compare("pca no no-data / -nomask", ["pca", "-q", "-stats", st, plain, o], ["pca", "-q", "-nomask", "-stats", st, plain, o])
compare("mnf masked / -nomask", ["mnf", "-q", "-stats", st, masked, o], ["mnf", "-q", "-nomask", "-stats", st, masked, o])
compare("mnf no no-data / -nomask", ["mnf", "-q", "-stats", st, plain, o], ["mnf", "-q", "-nomask", "-stats", st, plain, o])
for label, extra in [("masked", []), ("-nomask", ["-nomask"])]:
    out = timed(["pca", "-q", *extra, "-stats", st, "-stats-only", masked])[1].splitlines()
    print("pca %-8s first component %s %% | %s" % (label, out[1].split()[2], out[-1] if "statistics" in out[-1] else "all pixels"))
