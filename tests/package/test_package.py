"""The .deb unpacked with dpkg -x runs by itself: the CLI finds its libraries and plug-in through ../lib."""
import glob
import os
import subprocess
import tempfile
import unittest

BUILD = os.environ.get("TAV_BUILD_DIR", "")
PYTHON = os.environ.get("TAV_PYTHON", "python3")


class UnpackedPackage(unittest.TestCase):
    def test_cli_and_python_module_run_from_the_unpacked_root(self):
        with tempfile.TemporaryDirectory() as tmp:
            subprocess.run(["cpack", "-G", "DEB", "--config", os.path.join(BUILD, "CPackConfig.cmake"), "-B", tmp],
                           check=True, capture_output=True)
            deb, = glob.glob(os.path.join(tmp, "tavtransform_*.deb"))
            depends = subprocess.run(["dpkg-deb", "-f", deb, "Depends"], check=True, capture_output=True, text=True).stdout
            self.assertRegex(depends, r"libgdal\d+ .*libqt5core5a|libqt5core5a.*libgdal\d+ ")
            root = os.path.join(tmp, "root")
            subprocess.run(["dpkg", "-x", deb, root], check=True)
            cli = os.path.join(root, "usr", "bin", "tavtransform")
            self.assertRegex(subprocess.run([cli, "--version"], check=True, capture_output=True, text=True).stdout,
                             r"^tavtransform \d+\.\d+\.\d+\n$")

            scene, out = os.path.join(tmp, "scene.tif"), os.path.join(tmp, "kt.tif")
            subprocess.run([os.path.join(BUILD, "bin", "tav-make-scene"), scene, "40", "30", "6", "Byte"], check=True)
            # Only the unpacked tree is on the way: the build tree's plug-in cannot be picked up.
            env = dict(os.environ, LD_LIBRARY_PATH="")
            subprocess.run([cli, "kt", "-q", scene, out], check=True, env=env)
            self.assertTrue(os.path.isfile(out))

            env["PYTHONPATH"] = os.path.join(root, "usr", "lib", "python3", "dist-packages")
            script = ("import tavtransform, sys; sys.stdout.write(tavtransform.__file__ + '\\n');"
                      "tavtransform.run('kt', sys.argv[1], sys.argv[2], sensor='etm')")
            where = subprocess.run([PYTHON, "-c", script, scene, out + "_py.tif"], check=True, capture_output=True,
                                   text=True, env=env, cwd=tmp).stdout
            self.assertTrue(where.startswith(root), where)
            self.assertTrue(os.path.isfile(out + "_py.tif"))


if __name__ == "__main__":
    unittest.main()
