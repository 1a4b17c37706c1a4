"""The QGIS Processing provider in a headless QGIS: every algorithm writes the command line's files
byte for byte, a cancel at 30 % leaves nothing behind and QGIS running on, failures carry the command
line's message, the run never holds the interface thread, and an installed tree is found by QGIS.
Run as a script: exits 77 (skipped) where QGIS's Python bindings are absent."""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

os.environ["QT_QPA_PLATFORM"] = "offscreen"
try:
    from qgis.core import (QgsApplication, QgsProcessingAlgorithm, QgsProcessingAlgRunnerTask,
                           QgsProcessingContext, QgsProcessingException, QgsProcessingFeedback, QgsRasterLayer)
    from qgis.PyQt.QtCore import QEventLoop, QTimer
except ImportError as missing:
    print("skipped: QGIS's Python bindings are absent (%s); scripts/setup installs python3-qgis" % missing)
    sys.exit(77)

SOURCE, BUILD = os.environ["TAV_SOURCE_DIR"], os.environ["TAV_BUILD_DIR"]
SCENE = os.path.normpath(os.path.join(SOURCE, "..", "shared", "data", "L7_ETMs.tif"))
CLI, MAKE_SCENE = os.path.join(BUILD, "bin", "tavtransform"), os.path.join(BUILD, "bin", "tav-make-scene")
PROCESSING_PLUGINS = "/usr/share/qgis/python/plugins"  # Debian's home of Processing itself
# Debian 12's qgis_process wrapper passes --noversioncheck, which the program refuses; the program itself runs.
QGIS_PROCESS = "/usr/bin/qgis_process.bin" if os.path.exists("/usr/bin/qgis_process.bin") else "qgis_process"

APP = PROVIDER = None


def setUpModule():  # noqa: N802
    global APP, PROVIDER
    QgsApplication.setPrefixPath("/usr", True)
    APP = QgsApplication([], False)
    APP.initQgis()
    sys.path[:0] = [PROCESSING_PLUGINS, os.path.join(SOURCE, "qgis")]
    from processing.core.Processing import Processing
    Processing.initialize()
    from tavtransform_qgis.provider import TavTransformProvider
    PROVIDER = TavTransformProvider()  # the registry does not keep the Python object alive
    QgsApplication.processingRegistry().addProvider(PROVIDER)


def tool(*args):
    return subprocess.run(args, capture_output=True, text=True)


def run(algorithm, feedback=None, **parameters):
    import processing
    return processing.run("tavtransform:" + algorithm, parameters, feedback=feedback or QgsProcessingFeedback())


def read(path):
    with open(path, "rb") as f:
        return f.read()


class CancelAt(QgsProcessingFeedback):
    """Cancels once progress reaches `at`; records every percentage reported, repeats too."""

    def __init__(self, at):
        super().__init__()
        self.at, self.seen = at, []

    def setProgress(self, percent):  # noqa: N802
        super().setProgress(percent)
        self.seen.append(percent)
        if percent >= self.at and not self.isCanceled():
            self.cancelled_at = len(self.seen)
            self.cancel()


class Tmp(unittest.TestCase):
    def setUp(self):
        self.tmp = self.enterContext(tempfile.TemporaryDirectory())
        self.path = lambda *names: os.path.join(self.tmp, *names)

    def cli(self, *words):
        done = tool(CLI, words[0], "-q", *words[1:])
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def scene(self, bands, name="scene.tif", size=("40", "30")):
        self.assertEqual(tool(MAKE_SCENE, self.path(name), *size, str(bands), "UInt16").returncode, 0)
        return self.path(name)


@unittest.skipUnless(os.path.isfile(SCENE), "the sample scene ../shared/data/L7_ETMs.tif is absent")
class SameFilesAsTheCommandLine(Tmp):
    # (algorithm, Processing parameters, command-line words, input: the scene or a forward run's output).
    # Forward runs write their statistics to one path in both runs, so even the recorded options match.
    CASES = [
        ("kt", {"SENSOR": 3, "QUICKLOOK": "kt.png", "MASK": False},
         ["kt", "-sensor", "oli", "-quicklook", "kt.png", "-nomask"], None),
        ("pca", {"STATISTICS": "pca.sta", "COMPONENTS": 4, "CORRELATION": True, "CENTER": False, "DATA_TYPE": 6,
                 "SRC_NODATA": "60", "DST_NODATA": -1},
         ["pca", "-stats", "pca.sta", "-n", "4", "-corr", "-no-center", "-ot", "Float64", "-srcnodata", "60",
          "-dstnodata", "-1"], None),
        ("pca_inverse", {"STATISTICS": "cli/pca.sta", "DATA_TYPE": 1},
         ["pca-inverse", "-stats", "cli/pca.sta", "-ot", "UInt16"], "pca"),
        ("mnf", {"STATISTICS": "mnf.sta", "SRC_NODATA": "60"}, ["mnf", "-stats", "mnf.sta", "-srcnodata", "60"], None),
        ("mnf_inverse", {"STATISTICS": "cli/mnf.sta", "DST_NODATA": 255},
         ["mnf-inverse", "-stats", "cli/mnf.sta", "-dstnodata", "255"], "mnf"),
        ("fft", {"BANDS": [4, 1], "SRC_NODATA": "60"}, ["fft", "-b", "4", "-b", "1", "-srcnodata", "60"], None),
        ("fft_inverse", {}, ["fft-inverse", "-ot", "Float32"], "fft"),
        ("dwt", {"MASK": False, "CREATION_OPTIONS": "TILED=YES|COMPRESS=DEFLATE"},
         ["dwt", "-nomask", "-co", "TILED=YES", "-co", "COMPRESS=DEFLATE"], None),
        ("dwt_inverse", {}, ["dwt-inverse"], "dwt"),
    ]
    FILE_OPTIONS = ("STATISTICS", "QUICKLOOK")

    def test_every_algorithm_writes_the_command_lines_files(self):
        os.mkdir(self.path("cli"))
        os.mkdir(self.path("qgis"))
        here = lambda name: self.path(name) if name.endswith((".sta", ".png")) else name
        scene_files = {p: read(p) for p in (SCENE, SCENE + ".aux.xml") if os.path.exists(p)}
        for name, parameters, words, source in self.CASES:
            with self.subTest(name):
                source = self.path("cli", source + ".tif") if source else SCENE
                written = [p for p in parameters if p in self.FILE_OPTIONS and "/" not in parameters[p]]
                self.cli(*map(here, words), source, self.path("cli", name + ".tif"))
                for p in written:  # out of the way, so the Processing run writes the same path afresh
                    os.rename(self.path(parameters[p]), self.path("cli", parameters[p]))
                given = {k: here(v) if isinstance(v, str) else v for k, v in parameters.items()}
                results = run(name, INPUT=source, OUTPUT=self.path("qgis", name + ".tif"), **given)
                self.assertEqual(read(self.path("qgis", name + ".tif")), read(self.path("cli", name + ".tif")))
                for p in written:
                    self.assertEqual(read(self.path(parameters[p])), read(self.path("cli", parameters[p])), p)
                    self.assertEqual(results[p], self.path(parameters[p]))
                layer = QgsRasterLayer(self.path("qgis", name + ".tif"), name)
                cli_layer = QgsRasterLayer(self.path("cli", name + ".tif"), name)
                names = [layer.bandName(b + 1) for b in range(layer.bandCount())]
                self.assertEqual(names, [cli_layer.bandName(b + 1) for b in range(cli_layer.bandCount())])
                self.assertRegex(names[0], r"^Band 1: \S")  # QGIS shows the band names the run gave
        # Besides the .aux.xml of the statistics QGIS computes for display, nothing else is written.
        written = [n for n in os.listdir(self.path("qgis")) if not n.endswith(".aux.xml")]
        self.assertEqual(sorted(written), sorted(n + ".tif" for n, _, _, _ in self.CASES))
        self.assertEqual({p: read(p) for p in scene_files}, scene_files, "the sample scene is untouched")

    def test_statistics_only_returns_the_eigenvalue_table(self):
        # The scene as it is, and inside a frame of fill declared no-data: its table says over which pixels.
        framed = self.path("framed.tif")
        self.assertEqual(tool("gdal_translate", "-q", "-srcwin", "-20", "-20", "389", "392", "-a_nodata", "0",
                              SCENE, framed).returncode, 0)
        for n, source in enumerate((SCENE, framed)):
            with self.subTest(source):
                stats, kept, page_path = self.path("s%d.sta" % n), self.path("cli%d.sta" % n), self.path("t%d.html" % n)
                printed = self.cli("pca", "-stats-only", "-stats", stats, source)
                os.rename(stats, kept)
                results = run("pca", INPUT=source, STATISTICS=stats, STATISTICS_ONLY=True,
                              EIGENVALUES=page_path, OUTPUT=self.path("never.tif"))
                self.assertEqual(results["EIGENVALUE_TABLE"], printed)
                self.assertEqual(read(stats), read(kept))
                page = read(page_path).decode()
                rows, over = printed.splitlines()[1:7], printed.splitlines()[7:]
                for line in rows:
                    component, eigenvalue, percent, cumulative = line.split()
                    self.assertIn("<td>%s</td><td>%s</td><td>%s %%</td>" % (component, eigenvalue, percent), page)
                # 349 x 352 pixels of data in a 389 x 392 frame
                self.assertEqual(over, ["statistics over 122,848 of 152,488 pixels"] if n else [])
                self.assertEqual("<p>statistics over" in page, bool(n))
                self.assertFalse(os.path.exists(self.path("never.tif")))


class CancelAndFailure(Tmp):
    def test_cancel_at_30_percent_stops_where_the_modules_own_cancel_does_and_leaves_nothing(self):
        import tavtransform
        scene = self.scene(6, size=("1500", "1000"))
        for name, extra in [("pca", {"STATISTICS": self.path("s.sta")}), ("dwt", {})]:
            with self.subTest(name):
                # reference: the steps the run still reports when its progress callable says stop at 30 %
                seen = []
                with self.assertRaises(tavtransform.Error):
                    tavtransform.run(name, scene, self.path("out.tif"), stats=extra.get("STATISTICS"),
                                     progress=lambda p, m: seen.append(p) or p < 30)
                module_after = [p for p in seen[next(i for i, p in enumerate(seen) if p >= 30) + 1:] if p < 100]
                feedback = CancelAt(30)
                with self.assertRaisesRegex(QgsProcessingException, "cancelled"):
                    run(name, feedback, INPUT=scene, OUTPUT=self.path("out.tif"), **extra)
                after = [p for p in feedback.seen[feedback.cancelled_at:] if p < 100]
                self.assertEqual(after, module_after)
                self.assertEqual(os.listdir(self.tmp), ["scene.tif"])
        # QGIS runs on, and so does the provider
        run("kt", INPUT=scene, OUTPUT=self.path("kt.tif"))
        self.assertEqual(QgsRasterLayer(self.path("kt.tif"), "kt").bandCount(), 3)

    def test_failures_raise_the_command_lines_message_and_keep_the_users_files(self):
        six, three = self.scene(6), self.scene(3, "three.tif")
        self.cli("mnf", "-stats", self.path("six.mnf"), six, self.path("mnf.tif"))
        self.cli("pca", "-stats-only", "-stats", self.path("six.sta"), six)
        kept = {p: read(p) for p in (self.path("six.mnf"), self.path("six.sta"))}
        for name, stats, words in [("mnf_inverse", "six.mnf", ["mnf-inverse"]), ("pca_inverse", "six.sta", ["pca-inverse"])]:
            with self.subTest(name):
                done = tool(CLI, *words, "-q", "-stats", self.path(stats), three, self.path("out.tif"))
                self.assertIn(done.returncode, (1, 2))
                message = done.stderr.splitlines()[0]
                with self.assertRaises(QgsProcessingException) as caught:
                    run(name, INPUT=three, STATISTICS=self.path(stats), OUTPUT=self.path("out.tif"))
                self.assertIn(str(caught.exception.args[0]), message)
                self.assertGreater(len(caught.exception.args[0]), 12)
                self.assertFalse(os.path.exists(self.path("out.tif")))
        self.assertEqual({p: read(p) for p in kept}, kept)

    def test_a_run_in_a_task_leaves_the_interface_thread_free(self):
        scene = self.scene(6, size=("1500", "1000"))
        algorithm = QgsApplication.processingRegistry().createAlgorithmById("tavtransform:dwt")
        context, feedback, finished, ticks = QgsProcessingContext(), QgsProcessingFeedback(), [], []
        task = QgsProcessingAlgRunnerTask(algorithm, {"INPUT": scene, "OUTPUT": self.path("dwt.tif")}, context, feedback)
        task.executed.connect(lambda ok, results: finished.append(ok))
        timer, loop = QTimer(), QEventLoop()
        timer.timeout.connect(lambda: ticks.append(feedback.progress()) or (finished and loop.quit()))
        timer.start(5)
        QgsApplication.taskManager().addTask(task)
        loop.exec_()
        self.assertEqual(finished, [True])
        self.assertTrue([p for p in ticks if 0 < p < 100], "the interface thread ran while the transform did")
        self.assertTrue(os.path.isfile(self.path("dwt.tif")))
        for each in PROVIDER.algorithms():  # the Processing dialog runs these in a task too
            self.assertFalse(each.flags() & QgsProcessingAlgorithm.FlagNoThreading, each.id())


class Installed(Tmp):
    def test_qgis_finds_the_installed_plugin_and_runs_it(self):
        prefix = self.path("prefix")
        done = tool("cmake", "--install", BUILD, "--prefix", prefix)
        self.assertEqual(done.returncode, 0, done.stderr)
        plugins = os.path.join(prefix, "share", "qgis", "python", "plugins")
        self.assertTrue(os.path.isfile(os.path.join(plugins, "tavtransform_qgis", "metadata.txt")))
        scene = self.scene(6)
        # QGIS's own command-line runner, with nothing of the build tree on its paths and the plug-in
        # enabled in a fresh profile, as the Plugins dialog leaves it
        env = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "LD_LIBRARY_PATH")}
        env.update(QGIS_PLUGINPATH=plugins, HOME=self.tmp, QT_QPA_PLATFORM="offscreen")
        profile = self.path(".local", "share", "QGIS", "QGIS3", "profiles", "default", "QGIS")
        os.makedirs(profile)
        with open(os.path.join(profile, "QGIS3.ini"), "w") as f:
            f.write("[PythonPlugins]\ntavtransform_qgis=true\n")
        done = subprocess.run([QGIS_PROCESS, "run", "tavtransform:kt", "--", "INPUT=" + scene, "SENSOR=2",
                               "OUTPUT=" + self.path("kt.tif")], capture_output=True, text=True, env=env)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.cli("kt", "-sensor", "etm", scene, self.path("cli.tif"))
        self.assertEqual(read(self.path("kt.tif")), read(self.path("cli.tif")))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[1:], verbosity=2)
