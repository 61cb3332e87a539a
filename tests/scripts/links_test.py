"""scripts/links finds links and paths that lead nowhere, in a tree made for it."""

import pathlib
import tempfile
import unittest

from copiedtree import findings_of

PAGE = """# A page

[file](../core/a.h), [heading](#second-one), [heading elsewhere](other.md#first-part), [web](https://example.org/x).
`core/a.h`, `core/*.h`, `core/`, `elsewhere/a.h`, `keys/current`, `a/b`, `core/a.h:7`, `build/release/x`.

```sh
cat core/fenced.h  # [not a link](nowhere.md)
```

## Second one
"""


class Links(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory(prefix="tallowin-links-")
        self.addCleanup(place.cleanup)
        self.tree = pathlib.Path(place.name)
        for folder in ("docs", "core", "build", "tests/data"):
            (self.tree / folder).mkdir(parents=True)
        (self.tree / "core" / "a.h").touch()
        (self.tree / "docs" / "other.md").write_text("# Other\n## First part\n")
        (self.tree / "docs" / "page.md").write_text(PAGE)

    def findings(self):
        return findings_of("links", self.tree)

    def add(self, line):
        (self.tree / "docs" / "page.md").write_text(PAGE + line + "\n")
        return self.findings()

    def test_finds_nothing_on_sound_pages(self):
        self.assertEqual(self.findings(), [])

    def test_finds_links_that_lead_nowhere(self):
        self.assertEqual(self.add("[x](nowhere.md)"), ["docs/page.md:11: nowhere.md leads to no file"])
        self.assertEqual(self.add("[x](#nowhere)"), ["docs/page.md:11: #nowhere leads to no heading"])
        self.assertEqual(self.add("[x](other.md#second-one)"), ["docs/page.md:11: other.md#second-one leads to no heading"])

    def test_finds_paths_that_do_not_exist(self):
        for path in ("core/b.h", "docs/page.txt", "core/*.cpp", "core/a.h/x"):
            self.assertEqual(self.add(f"`{path}`"), [f"docs/page.md:11: there is no {path}"])

    def test_finds_two_mistakes_of_one_line(self):
        self.assertEqual(len(self.add("[x](nowhere.md) `core/b.h`")), 2)

    def test_takes_paths_beside_the_page(self):
        page = self.tree / "tests" / "data" / "README.md"
        (page.parent / "core").mkdir()
        (page.parent / "core" / "beside.h").touch()
        page.write_text("`core/beside.h`\n")
        self.assertEqual(self.findings(), [])
        page.write_text("`core/neither.h`\n")
        self.assertEqual(self.findings(), ["tests/data/README.md:1: there is no core/neither.h"])


if __name__ == "__main__":
    unittest.main()
