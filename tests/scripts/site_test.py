"""scripts/site makes pages that lead nowhere wrong and load nothing from elsewhere, and fails for a link that is broken."""

import re
import subprocess
import unittest

from copiedtree import ROOT, SECONDS, CopiedTree


class Site(CopiedTree):
    def site(self):
        """Runs the script of the copy. Returns its status and all that it prints."""
        done = subprocess.run([self.tree / "scripts" / "site"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              timeout=SECONDS, check=False)
        return done.returncode, done.stdout

    def page(self, name):
        return (self.tree / "build" / "site" / name).read_text()

    def test_has_every_page_in_its_list_and_loads_nothing_from_elsewhere(self):
        self.change("docs/risks.md", "# Known risks", "# Known risks\n\nSee [formats.md](formats.md) and [the shop](../examples/shop).")
        self.assertEqual(self.site(), (0, ""))
        first = self.page("index.html")
        listed = first[first.index('<nav id="pages"'):]
        for page in (ROOT / "docs").glob("*.md"):
            self.assertIn(f'href="docs/{page.stem}.html"', listed)
        own = [page for page in (self.tree / "build" / "site").rglob("*.html") if "reference" not in page.parts]
        self.assertGreater(len(own), 30)
        for page in own:
            text = page.read_text()
            self.assertNotIn("<script", text, page)
            self.assertEqual(re.findall(r"<(?:link|img|iframe)[^>]*(?:https?:)?//", text), [], page)
            self.assertIn('name="viewport"', text, page)
        risks = self.page("docs/risks.html")
        self.assertIn('<a href="formats.html">Formats</a>', risks)
        self.assertIn('<a href="../examples/shop/index.html">the shop</a>', risks)
        self.assertIn("shop_main.cpp.html", self.page("examples/shop/index.html"))

    def test_keeps_lists_and_tables_apart(self):
        self.change("docs/risks.md", "# Known risks", "# Known risks\n\nText:\n- one\n\n  | A | B |\n  |---|---|\n  | 1 | 2 |\n- two\n")
        self.assertEqual(self.site(), (0, ""))
        text = re.sub(r"\s+", "", self.page("docs/risks.html"))
        self.assertIn("<p>Text:</p><ul><li><p>one</p><table>", text)
        self.assertIn("<td>2</td></tr></tbody></table></li><li><p>two</p></li></ul>", text)

    def test_refuses_a_link_to_no_heading(self):
        self.change("docs/risks.md", "# Known risks", "# Known risks\n\n[there](formats.md#no-such-heading)")
        self.assertEqual(self.site(), (1, "docs/risks.html: formats.html#no-such-heading leads to no heading\n"))

    def test_refuses_a_link_to_no_file(self):
        self.change("docs/risks.md", "# Known risks", "# Known risks\n\n[there](nowhere.md)")
        self.assertEqual(self.site(), (1, "docs/risks.md: nowhere.md leads to no file\n"))


if __name__ == "__main__":
    unittest.main()
