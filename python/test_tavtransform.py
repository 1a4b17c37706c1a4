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
        self.assertIsNone(table.pixels)  # nothing was left out
        # In a frame of declared no-data fill: the pixels the statistics used, counted here, and the line.
        framed = self.path("framed.tif")
        gdal.Translate(framed, SAMPLE, srcWin=[-20, -20, 389, 392], noData=0)
        table = tavtransform.run("pca", framed, stats=self.path("f.sta"), stats_only=True)
        used = int(np.all(read(framed)[0] != 0, axis=0).sum())
        self.assertEqual(table.pixels, (used, 389 * 392))
        self.assertEqual(table.statistics_over, "statistics over {:,} of {:,} pixels".format(used, 389 * 392))

    def test_creation_options_reach_the_output_and_bad_ones_are_refused(self):
        scene, out = self.path("scene.tif"), self.path("o.tif")
        gdal.GetDriverByName("GTiff").Create(scene, 300, 200, 6, gdal.GDT_UInt16).WriteArray(
            np.resize(np.arange(997, dtype=np.uint16), (6, 200, 300)))
        tavtransform.run("kt", scene, out, sensor="etm", co=["TILED=YES", "COMPRESS=ZSTD", "BLOCKXSIZE=128", "BLOCKYSIZE=64"])
        ds = gdal.Open(out)
        self.assertEqual(ds.GetMetadataItem("COMPRESSION", "IMAGE_STRUCTURE"), "ZSTD")
        self.assertEqual(ds.GetRasterBand(1).GetBlockSize(), [128, 64])
        ds = None
        with self.assertRaises(ValueError) as caught:
            tavtransform.run("kt", scene, self.path("bad.tif"), sensor="etm", co=["COMPRESS=NOPE"])
        self.assertIn("NOPE", str(caught.exception))
        self.assertFalse(os.path.exists(self.path("bad.tif")))

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
        # mnf: the fill row left out of the statistics, NaN in the components, as on the command line.
        subprocess.run([CLI, "mnf", "-q", "-srcnodata", "7", "-stats", self.path("c.sta"), self.path("in.tif"),
                        self.path("cli.tif")], check=True)
        tavtransform.run("mnf", self.path("in.tif"), self.path("py.tif"), stats=self.path("p.sta"), srcnodata=7)
        np.testing.assert_array_equal(read(self.path("py.tif"))[0], read(self.path("cli.tif"))[0])
        self.assertTrue(np.isnan(read(self.path("py.tif"))[0][:, 0, :]).all())
        # A JPEG copy changes some of the fill's no-data pixels: said as a RuntimeWarning naming the value.
        data[:, 2:, :] = 0
        data[:, :2, :3] = np.arange(6 * 2 * 3).reshape(6, 2, 3) * 37 % 251 + 1
        ds = gdal.GetDriverByName("GTiff").Create(self.path("fill.tif"), 7, 5, 6, gdal.GDT_UInt16)
        for b in range(6):
            ds.GetRasterBand(b + 1).WriteArray(data[b])
            ds.GetRasterBand(b + 1).SetNoDataValue(0)
        ds = None
        with self.assertWarnsRegex(RuntimeWarning, "JPEG compresses with loss: .* no-data value 0"):
            tavtransform.run("pca", self.path("fill.tif"), self.path("pc.jpg"), stats=self.path("s.sta"), ot="Byte",
                             n=3, of="JPEG")

    def test_fft_and_dwt_fill_the_fill_with_the_mean_and_warn(self):
        data = np.arange(2 * 5 * 7, dtype=np.uint16).reshape(2, 5, 7) + 1
        data[:, 0, :] = 7  # a fill row; the others of band 1 are 8 .. 35, of mean 21.5
        ds = gdal.GetDriverByName("GTiff").Create(self.path("in.tif"), 7, 5, 2, gdal.GDT_UInt16)
        ds.WriteArray(data)
        ds = None
        filled = data.astype(float)
        filled[:, 0, :] = [[filled[b, 1:, :].mean()] for b in range(2)]
        spectrum = np.fft.fftshift(np.fft.ifft2(filled[0]))  # the positive exponent over W x H, centred
        for command in ("fft", "dwt"):
            with self.subTest(command):
                with self.assertWarnsRegex(RuntimeWarning, "band 1: 7 of 35 pixels were masked and filled with the mean "
                                                           "of the others, 21.5, before the transform"):
                    tavtransform.run(command, self.path("in.tif"), self.path("py.tif"), srcnodata=7)
                subprocess.run([CLI, command, "-q", "-srcnodata", "7", self.path("in.tif"), self.path("cli.tif")], check=True)
                np.testing.assert_array_equal(read(self.path("py.tif"))[0], read(self.path("cli.tif"))[0])
                tavtransform.run(command, self.path("in.tif"), self.path("all.tif"), mask=False)
                self.assertFalse((read(self.path("all.tif"))[0] == read(self.path("py.tif"))[0]).all())
        tavtransform.run("fft", self.path("in.tif"), self.path("f.tif"), srcnodata=7, b=1)
        np.testing.assert_allclose(read(self.path("f.tif"))[0], [spectrum.real, spectrum.imag], atol=2e-5)

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

    def test_kt_sets_coefficients_and_unscale(self):
        oli = np.array([[0.3029, 0.2786, 0.4733, 0.5599, 0.5080, 0.1872], [-0.2941, -0.2430, -0.5424, 0.7276, 0.0713, -0.1608],
                        [0.1511, 0.1973, 0.3283, 0.3407, -0.7117, -0.4559], [-0.8239, 0.0849, 0.4396, -0.0580, 0.2013, -0.2773],
                        [-0.3294, 0.0557, 0.1056, 0.1855, -0.4349, 0.8085], [0.1079, -0.9023, 0.4119, 0.0575, -0.0259, 0.0252]])
        dn = np.random.default_rng(7).integers(7273, 43636, (6, 5, 9)).astype(np.uint16)
        reflectance = (dn * 0.0000275 - 0.2).astype(np.float32)
        components = tavtransform.kt(reflectance, sensor="OLI")
        np.testing.assert_allclose(components, np.einsum("kj,jyx->kyx", oli, reflectance.astype(float)), atol=2e-6)
        np.testing.assert_array_equal(tavtransform.kt(dn, sensor="oli", unscale=(0.0000275, -0.2)), components)
        with open(self.path("oli.csv"), "w") as f:
            f.writelines("TC%d,%s\n" % (k + 1, ",".join(str(w) for w in row)) for k, row in enumerate(oli))
        np.testing.assert_array_equal(tavtransform.kt(reflectance, coefficients=self.path("oli.csv")), components)
        # A file with a scale and offset: -unscale through run(), a warning without it.
        ds = gdal.GetDriverByName("GTiff").Create(self.path("dn.tif"), 9, 5, 6, gdal.GDT_UInt16)
        for b in range(6):
            ds.GetRasterBand(b + 1).WriteArray(dn[b])
            ds.GetRasterBand(b + 1).SetScale(0.0000275)
            ds.GetRasterBand(b + 1).SetOffset(-0.2)
        ds = None
        tavtransform.run("kt", self.path("dn.tif"), self.path("u.tif"), sensor="oli", unscale=True)
        np.testing.assert_array_equal(read(self.path("u.tif"))[0], components)
        self.assertEqual(read(self.path("u.tif"))[1], ["Brightness", "Greenness", "Wetness", "TCT4", "TCT5", "TCT6"])
        with self.assertWarnsRegex(UserWarning, "INPUT band 1 has scale 2.75e-05 and offset -0.2"):
            tavtransform.run("kt", self.path("dn.tif"), self.path("s.tif"), sensor="oli")
        for bad in [{"unscale": True}, {"unscale": (1, 2, 3)}, {"unscale": [(1, 0)] * 5}]:
            with self.subTest(bad), self.assertRaises(ValueError):
                tavtransform.kt(dn, sensor="oli", **bad)

    def contents(self):
        """Every file of the folder, hidden ones included, with its bytes."""
        def data(name):
            with open(self.path(name), "rb") as f:
                return f.read()
        return {name: data(name) for name in os.listdir(self.tmp)}

    def test_options_files_and_cancel_keep_what_the_user_had(self):
        scene, stats, out = self.path("scene.tif"), self.path("s.sta"), self.path("o.tif")
        values = np.random.default_rng(3).uniform(0, 4000, (4, 60, 50)).astype(np.float32)
        ds = gdal.GetDriverByName("GTiff").Create(scene, 50, 60, 4, gdal.GDT_Float32)
        ds.WriteArray(values)
        del ds
        for name, text in [(stats, "the user's statistics"), (out, "the user's result")]:
            with open(name, "w") as f:
                f.write(text)
        before = self.contents()
        path = __import__("pathlib").Path
        cases = [  # (options, exception, message): each leaves the folder as it was
            ({"stats": stats, "progress": lambda p, m: p < 10}, tavtransform.Cancelled, "-1010"),
            ({"stats": 5}, TypeError, "file name"), ({"stats": stats, "n": True}, TypeError, "takes a value"),
            ({"stats": stats, "of": "PNG"}, ValueError, "PNG cannot hold the Float32 values"),
            ({"stats": stats, "stats_only": 1, "quicklook": self.path("q.png")}, ValueError, "-stats-only writes none"),
            ({"stats": stats, "corr": "yes", "center": 0, "quicklook": self.path("no/q.png")}, ValueError, "does not exist"),
            ({"stats": os.fsdecode(b"s\xff.sta")}, ValueError, "is not valid UTF-8"),
        ]
        for options, raised, message in cases:
            with self.subTest(options), self.assertRaises(raised) as caught:
                tavtransform.run("pca", path(scene), path(out), **options)
            self.assertIn(message, str(caught.exception))
            self.assertEqual(self.contents(), before)
        self.assertTrue(issubclass(tavtransform.Cancelled, tavtransform.Error))
        # Truthy flags and path-like names; centred by default, so the inverse gives the scene back.
        tavtransform.run("pca", path(scene), path(out), stats=path(stats), corr=1)
        tavtransform.run("pca", path(scene), path(out), stats=path(stats), center="yes")
        tavtransform.run("pca-inverse", path(out), self.path("back.tif"), stats=path(stats))
        np.testing.assert_allclose(read(self.path("back.tif"))[0], values, rtol=1e-5, atol=1e-2)
        for helper, bad, options, message in [(tavtransform.fft, np.zeros((2, 3, 4), np.complex64), {}, "complex arrays"),
                                              (tavtransform.kt, values, {"of": "PNG"}, "PNG cannot hold"),
                                              (tavtransform.dwt, values, {"co": ["COMPRESS=DEFLATE"]}, "keeps no file")]:
            with self.subTest(message), self.assertRaises(ValueError) as caught:
                helper(bad, **options)
            self.assertIn(message, str(caught.exception))
        self.assertFalse(gdal.ReadDirRecursive("/vsimem/"))
