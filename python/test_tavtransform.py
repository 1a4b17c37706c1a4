"""The Python entry against the command line on the sample Landsat scene; failures and cancellation."""
import os
import signal
import subprocess
import tempfile
import unittest

import numpy as np
from osgeo import gdal

import tavtransform

BIN = os.environ.get("TAV_BIN_DIR", "")
SAMPLE = os.environ.get("TAV_SAMPLE", "")
gdal.UseExceptions()


def read(path):
    ds = gdal.Open(path)
    return ds.ReadAsArray(), [ds.GetRasterBand(b + 1).GetDescription() for b in range(ds.RasterCount)]


def write(path, array):
    ds = gdal.GetDriverByName("GTiff").Create(path, array.shape[2], array.shape[1], array.shape[0], gdal.GDT_Byte)
    for b in range(array.shape[0]):
        ds.GetRasterBand(b + 1).WriteArray(array[b])
    ds = None


class WithTemp(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.dir = self.tmp.name

    def tearDown(self):
        self.tmp.cleanup()

    def path(self, name):
        return os.path.join(self.dir, name)

    def cli(self, *args):
        subprocess.run([os.path.join(BIN, "tavtransform"), args[0], "-q", *args[1:]], check=True)


@unittest.skipUnless(os.path.isfile(SAMPLE), "the sample scene ../shared/data/L7_ETMs.tif is absent")
class SameAsTheCommandLine(WithTemp):
    # (command-line words, run() keywords, array helper, its keywords, whether the helper gets the CLI's output)
    CASES = [
        (["kt", "-sensor", "etm"], {"sensor": "etm"}, tavtransform.kt, {"sensor": "etm"}, False),
        (["fft", "-b", "1", "-b", "4"], {"b": [1, 4]}, tavtransform.fft, {"b": [1, 4]}, False),
        (["dwt"], {}, tavtransform.dwt, {}, False),
        (["fft-inverse"], {}, tavtransform.fft_inverse, {}, True),
        (["dwt-inverse"], {}, tavtransform.dwt_inverse, {}, True),
    ]

    def test_run_and_array_helpers_give_the_cli_result(self):
        scene = read(SAMPLE)[0]
        for words, options, helper, helper_options, on_forward in self.CASES:
            with self.subTest(words[0]):
                source = self.path(words[0].split("-")[0] + "_cli.tif") if on_forward else SAMPLE
                self.cli(*words, source, self.path("cli.tif"))
                expected, names = read(self.path("cli.tif"))
                returned = tavtransform.run(words[0], source, self.path("py.tif"), **options)
                self.assertEqual(returned, self.path("py.tif"))
                actual, py_names = read(self.path("py.tif"))
                np.testing.assert_array_equal(actual, expected)
                self.assertEqual(py_names, names)
                os.rename(self.path("cli.tif"), self.path(words[0] + "_cli.tif"))
                np.testing.assert_array_equal(helper(read(source)[0] if on_forward else scene, **helper_options), expected)
        self.assertFalse(gdal.ReadDirRecursive("/vsimem/"), "the array helpers leave nothing in memory")

    def test_statistics_only_returns_the_eigenvalue_table(self):
        try:
            table = tavtransform.run("pca", SAMPLE, stats=self.path("s.sta"), stats_only=True)
        except tavtransform.Error as e:
            self.skipTest("principal components are not in this build: %s" % e.text)
        scene = read(SAMPLE)[0].reshape(6, -1).astype(float)
        eigen = np.sort(np.linalg.eigvalsh(np.cov(scene)))[::-1]
        np.testing.assert_allclose([row[1] for row in table], eigen, rtol=1e-6)
        np.testing.assert_allclose(table[-1][3], 100.0)


class FailuresAndCancellation(WithTemp):
    def setUp(self):
        super().setUp()
        self.scene = self.path("scene.tif")
        write(self.scene, (np.arange(5 * 300 * 200).reshape(5, 300, 200) % 251).astype(np.uint8))

    def test_failures_raise_with_code_and_text_and_leave_no_output(self):
        out = self.path("o.tif")
        with self.assertRaises(tavtransform.Error) as caught:
            tavtransform.run("kt", self.scene, out)
        self.assertEqual(caught.exception.code, 1)
        self.assertIn("Input file is inconsistent with the sensor type!", caught.exception.text)
        for bad in [dict(sensor="spot"), dict(b=0), dict(quicklook=self.path("q.jpg"))]:
            with self.subTest(bad), self.assertRaises(ValueError):
                tavtransform.run("fft" if "b" in bad else "kt", self.scene, out, **bad)
        self.assertFalse(os.path.exists(out))

    def test_ctrl_c_and_a_false_progress_cancel_the_run(self):
        def ctrl_c(percent, message):
            if percent > 0:
                os.kill(os.getpid(), signal.SIGINT)

        out = self.path("o.tif")
        for progress, raised in [(ctrl_c, KeyboardInterrupt), (lambda p, m: p == 0, tavtransform.Error)]:
            with self.subTest(raised.__name__), self.assertRaises(raised) as caught:
                tavtransform.run("dwt", self.scene, out, progress=progress)
            if raised is tavtransform.Error:
                self.assertEqual(caught.exception.code, -1010)
            self.assertFalse(os.path.exists(out))
            self.assertFalse(os.path.exists(self.path("o_temp.tif")))


if __name__ == "__main__":
    unittest.main()
