"""The demo's index.html: every picture it shows is there, is a PNG, and has the size the page states."""
import html.parser
import os
import pathlib
import struct
import subprocess
import tempfile
import unittest

SOURCE = pathlib.Path(os.environ.get("TAV_SOURCE_DIR", pathlib.Path(__file__).resolve().parents[2]))
BIN = os.environ.get("TAV_BIN_DIR", str(SOURCE / "build" / "bin"))


class Images(html.parser.HTMLParser):
    def __init__(self):
        super().__init__()
        self.images = []

    def handle_starttag(self, tag, attrs):
        if tag == "img":
            self.images.append(dict(attrs))


def png_size(path):
    """Width and height from the IHDR chunk; None when the file is no PNG."""
    head = pathlib.Path(path).read_bytes()[:24]
    if head[:8] != b"\x89PNG\r\n\x1a\n" or head[12:16] != b"IHDR":
        return None
    return struct.unpack(">II", head[16:24])


class DemoPage(unittest.TestCase):
    def test_every_picture_exists_and_is_a_png_of_the_stated_size(self):
        sample = SOURCE.parent / "shared" / "data" / "L7_ETMs.tif"
        with tempfile.TemporaryDirectory() as out:
            env = dict(os.environ, TAV_DEMO_BIN=BIN, TAV_DEMO_OUT=out)
            if sample.exists():
                env["TAV_DEMO_SCENE"] = str(sample)
            else:  # the demo falls back to a synthetic scene under data/
                env["TAV_DEMO_SCENE"] = os.path.join(out, "synthetic.tif")
                subprocess.run([os.path.join(BIN, "tav-make-scene"), env["TAV_DEMO_SCENE"], "349", "352", "6", "Byte"],
                               check=True)
            subprocess.run([str(SOURCE / "scripts" / "demo")], env=env, check=True, capture_output=True)
            page = Images()
            page.feed(pathlib.Path(out, "index.html").read_text())
            results = sorted(p.stem for p in pathlib.Path(out).glob("*.tif") if p.name != "synthetic.tif")
            # The input and every result, each once.
            self.assertEqual(sorted(pathlib.Path(i["src"]).stem for i in page.images), sorted(results + ["input"]))
            for image in page.images:
                with self.subTest(image["src"]):
                    picture = pathlib.Path(out, image["src"])
                    self.assertTrue(picture.is_file())
                    self.assertEqual(png_size(picture), (int(image["width"]), int(image["height"])))


if __name__ == "__main__":
    unittest.main()
