"""The Python entry against the command line on the sample Landsat scene; failures and cancellation."""
import os
import signal
import subprocess
import tempfile
import threading
import time
import unittest

import numpy as np
from osgeo import gdal

import tavtransform

SAMPLE, CLI = os.environ.get("TAV_SAMPLE", ""), os.environ.get("TAV_BIN_DIR", "") + "/tavtransform"


def read(path):
    ds = gdal.Open(path)
    return ds.ReadAsArray(), [ds.GetRasterBand(b + 1).GetDescription() for b in range(ds.RasterCount)]


class Runs(unittest.TestCase):
    def setUp(self):
        self.tmp = self.enterContext(tempfile.TemporaryDirectory())
        self.path = lambda name: os.path.join(self.tmp, name)

    @unittest.skipUnless(os.path.isfile(SAMPLE), "the sample scene ../shared/data/L7_ETMs.tif is absent")
    def test_run_and_array_helpers_give_the_cli_result(self):
        t = tavtransform  # (command-line words, keywords, array helper); inverses read the forward CLI output
        for words, options, helper in [(["kt", "-sensor", "etm"], {"sensor": "etm"}, t.kt), (["dwt"], {}, t.dwt),
                                       (["fft", "-b", "1", "-b", "4"], {"b": [1, 4]}, t.fft),
                                       (["fft-inverse"], {}, t.fft_inverse), (["dwt-inverse"], {}, t.dwt_inverse)]:
            with self.subTest(words[0]):
                source, cli = self.path(words[0][:3] + ".tif") if "inverse" in words[0] else SAMPLE, self.path(words[0] + ".tif")
                subprocess.run([CLI, words[0], "-q", *words[1:], source, cli], check=True)
                self.assertEqual(tavtransform.run(words[0], source, self.path("py.tif"), **options), self.path("py.tif"))
                self.assertEqual(read(self.path("py.tif"))[1], read(cli)[1])
                np.testing.assert_array_equal(read(self.path("py.tif"))[0], read(cli)[0])
                np.testing.assert_array_equal(helper(read(source)[0], **options), read(cli)[0])
        self.assertFalse(gdal.ReadDirRecursive("/vsimem/"), "the array helpers leave nothing in memory")

    @unittest.skipUnless(os.path.isfile(SAMPLE), "the sample scene ../shared/data/L7_ETMs.tif is absent")
    def test_statistics_only_returns_the_eigenvalue_table(self):
        try:
            table = tavtransform.run("pca", SAMPLE, stats=self.path("s.sta"), stats_only=True)
        except tavtransform.Error as e:
            self.skipTest("principal components are not in this build: %s" % e.text)
        eigen = np.sort(np.linalg.eigvalsh(np.cov(read(SAMPLE)[0].reshape(6, -1).astype(float), bias=True)))[::-1]
        np.testing.assert_allclose([row[1] for row in table], eigen, rtol=1e-6)

    def test_mask_keywords_are_the_command_line_options(self):
        data = np.arange(6 * 5 * 7, dtype=np.uint16).reshape(6, 5, 7) + 1
        data[:, 0, :] = 7  # a fill row, told band by band
        ds = gdal.GetDriverByName("GTiff").Create(self.path("in.tif"), 7, 5, 6, gdal.GDT_UInt16)
        for b in range(6):
            ds.GetRasterBand(b + 1).WriteArray(data[b])
        ds = None
        for words, options in [(["-srcnodata", "7", "-dstnodata", "-5"], {"srcnodata": 7, "dstnodata": -5}),
                               (["-srcnodata", "7 7 7 7 7 7"], {"srcnodata": [7] * 6}), (["-nomask"], {"mask": False})]:
            with self.subTest(words):
                subprocess.run([CLI, "kt", "-q", *words, self.path("in.tif"), self.path("cli.tif")], check=True)
                tavtransform.run("kt", self.path("in.tif"), self.path("py.tif"), **options)
                np.testing.assert_array_equal(read(self.path("py.tif"))[0], read(self.path("cli.tif"))[0])
        self.assertTrue((read(self.path("py.tif"))[0][:, 0, :] != -5).all(), "mask=False leaves the fill in")

    def test_failures_and_cancellation_raise_and_leave_no_output(self):
        scene, out = self.path("scene.tif"), self.path("o.tif")
        gdal.GetDriverByName("GTiff").Create(scene, 2000, 1500, 5).WriteArray(np.resize(np.arange(251, dtype=np.uint8), (5, 1500, 2000)))
        def ctrl_c_once_started():  # from outside, while no Python code runs
            while len(os.listdir(self.tmp)) < 2:
                time.sleep(0.001)
            os.kill(os.getpid(), signal.SIGINT)
        cases = [("kt", {}, tavtransform.Error, 1, "Input file is inconsistent with the sensor type!"),
                 ("dwt", {}, KeyboardInterrupt, None, ""), ("fft", {"b": 0}, ValueError, None, ""),
                 ("dwt", {"progress": lambda p, m: None if p == 0 else False}, tavtransform.Error, -1010, ""),  # None goes on
                 ("kt", {"sensor": "spot"}, ValueError, None, ""), ("kt", {"quicklook": "q.jpg"}, ValueError, None, "")]
        for command, options, raised, code, text in cases:
            if raised is KeyboardInterrupt:
                threading.Thread(target=ctrl_c_once_started).start()
            with self.subTest(options), self.assertRaises(raised) as caught:
                tavtransform.run(command, scene, out, **options)
            self.assertEqual(getattr(caught.exception, "code", None), code)
            self.assertIn(text, getattr(caught.exception, "text", ""))
            self.assertEqual(sorted(os.listdir(self.tmp)), ["scene.tif"])
