"""The demo's index.html: the input and every result shown once, each a PNG of the size the page states."""
import html.parser
import os
import pathlib
import struct
import subprocess
import tempfile
import unittest

SOURCE = pathlib.Path(os.environ["TAV_SOURCE_DIR"])
BIN = os.environ["TAV_BIN_DIR"]


class Images(html.parser.HTMLParser):
    def __init__(self):
        super().__init__()
        self.images = []

    def handle_starttag(self, tag, attrs):
        self.images += [dict(attrs)] if tag == "img" else []


class DemoPage(unittest.TestCase):
    def test_every_picture_exists_and_is_a_png_of_the_stated_size(self):
        with tempfile.TemporaryDirectory() as out:
            scene = SOURCE.parent / "shared" / "data" / "L7_ETMs.tif"
            if not scene.exists():
                scene = os.path.join(out, "synthetic.img")
                subprocess.run([os.path.join(BIN, "tav-make-scene"), scene, "349", "352", "6", "Byte"], check=True)
            env = dict(os.environ, TAV_DEMO_BIN=BIN, TAV_DEMO_OUT=out, TAV_DEMO_SCENE=str(scene))
            subprocess.run([str(SOURCE / "scripts" / "demo")], env=env, check=True, capture_output=True)
            page = Images()
            page.feed(pathlib.Path(out, "index.html").read_text())
            results = [p.stem for p in pathlib.Path(out).glob("*.tif")] + ["input"]
            self.assertEqual(sorted(pathlib.Path(i["src"]).stem for i in page.images), sorted(results))
            for image in page.images:
                head = pathlib.Path(out, image["src"]).read_bytes()[:24]
                self.assertEqual(head[:8] + head[12:16], b"\x89PNG\r\n\x1a\nIHDR", image["src"])
                self.assertEqual(struct.unpack(">II", head[16:24]), (int(image["width"]), int(image["height"])))


if __name__ == "__main__":
    unittest.main()
