"""The drawing on docs/architecture.md is the one that scripts/layers makes of the tree."""

import pathlib
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BEGIN = "<!-- layers: scripts/layers draw -->\n"
END = "<!-- /layers -->\n"


class Architecture(unittest.TestCase):
    def test_page_shows_the_layers_of_the_tree(self):
        page = (ROOT / "docs" / "architecture.md").read_text()
        self.assertEqual((page.count(BEGIN), page.count(END)), (1, 1))
        shown = page.split(BEGIN)[1].split(END)[0]
        done = subprocess.run([ROOT / "scripts" / "layers", "draw"], capture_output=True, text=True, timeout=60, check=True)
        self.assertEqual(shown, done.stdout, "put what `scripts/layers draw` prints between the two comments on the page")


if __name__ == "__main__":
    unittest.main()
