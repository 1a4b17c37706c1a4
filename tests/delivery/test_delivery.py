"""The demo's page shows a PNG of the stated size for the input and every result; the .deb unpacked
with dpkg -x runs by itself, the CLI finding its libraries and plug-in through ../lib."""
import glob
import os
import pathlib
import re
import struct
import subprocess
import tempfile
import unittest

SOURCE, BUILD = pathlib.Path(os.environ["TAV_SOURCE_DIR"]), os.environ["TAV_BUILD_DIR"]
SCENE = SOURCE.parent / "shared" / "data" / "L7_ETMs.tif"


def output(*args, **kw):
    return subprocess.run(args, check=True, capture_output=True, text=True, **kw).stdout


class DemoPage(unittest.TestCase):
    @unittest.skipUnless(SCENE.exists(), "the sample scene ../shared/data/L7_ETMs.tif is absent")
    def test_every_picture_exists_and_is_a_png_of_the_stated_size(self):
        with tempfile.TemporaryDirectory() as out:
            env = dict(os.environ, TAV_DEMO_BIN=os.environ["TAV_BIN_DIR"], TAV_DEMO_OUT=out, TAV_DEMO_SCENE=str(SCENE))
            output(str(SOURCE / "scripts" / "demo"), env=env)
            images = re.findall(r'<img src="([^"]+)" width="(\d+)" height="(\d+)"', pathlib.Path(out, "index.html").read_text())
            results = [p.stem for p in pathlib.Path(out).glob("*.tif")] + ["input"]
            self.assertEqual(sorted(pathlib.Path(src).stem for src, _, _ in images), sorted(results))
            for src, width, height in images:
                head = pathlib.Path(out, src).read_bytes()[:24]
                self.assertEqual(head[:8] + head[12:16], b"\x89PNG\r\n\x1a\nIHDR", src)
                self.assertEqual(struct.unpack(">II", head[16:24]), (int(width), int(height)), src)


class UnpackedPackage(unittest.TestCase):
    def test_cli_and_python_module_run_from_the_unpacked_root(self):
        with tempfile.TemporaryDirectory() as tmp:
            output("cpack", "-G", "DEB", "--config", os.path.join(BUILD, "CPackConfig.cmake"), "-B", tmp)
            deb, = glob.glob(os.path.join(tmp, "tavtransform_*.deb"))
            self.assertRegex(output("dpkg-deb", "-f", deb, "Depends"), r"libgdal\d+ .*libqt5core5a")
            root, scene = os.path.join(tmp, "root"), os.path.join(tmp, "scene.tif")
            output("dpkg", "-x", deb, root)
            cli = os.path.join(root, "usr", "bin", "tavtransform")
            self.assertRegex(output(cli, "--version"), r"^tavtransform \d+\.\d+\.\d+\n$")
            output(os.path.join(BUILD, "bin", "tav-make-scene"), scene, "40", "30", "6", "Byte")
            output(cli, "kt", "-q", scene, tmp + "/kt.tif")
            env = dict(os.environ, PYTHONPATH=os.path.join(root, "usr", "lib", "python3", "dist-packages"))
            script = "import tavtransform, sys; tavtransform.run('kt', *sys.argv[1:]); print(tavtransform.__file__)"
            self.assertTrue(output("/usr/bin/python3", "-c", script, scene, tmp + "/py.tif", env=env).startswith(root))
            self.assertTrue(os.path.isfile(tmp + "/kt.tif") and os.path.isfile(tmp + "/py.tif"))
            # The QGIS plug-in where QGIS looks for system plug-ins, pointing at the module beside it
            plugin = os.path.join(root, "usr", "share", "qgis", "python", "plugins", "tavtransform_qgis")
            paths = {}
            exec(pathlib.Path(plugin, "installed_paths.py").read_text(), paths)
            module_dir = os.path.normpath(os.path.join(plugin, paths["PYTHON_DIR"]))
            self.assertTrue(glob.glob(os.path.join(module_dir, "tavtransform*.so")), module_dir)
            self.assertTrue(os.path.isfile(os.path.join(plugin, "metadata.txt")))
