"""scripts/catalogue keeps the files it makes as catalogue/errors.json has them, and refuses a catalogue with gaps."""

import subprocess
import unittest

from copiedtree import CopiedTree, ROOT, SECONDS

SOURCE = "catalogue/errors.json"
PRODUCTS = {
    "include/tallowin/codes.h": ("no such attribute, value or key", "no attribute"),
    "core/kvxerrortable.cpp": ("requested item was not found", "requested item is missing"),
    "tools/errortable.h": ("Free memory.", "Buy memory."),
    "ledger/moneytable.h": ("{KVX_E_WRONG_RESPONSE,", "{KVX_E_SERVER_ERROR,"),
    "java/src/kelvane/tallowin/ResultCode.java": ("0x80040219", "0x80040220"),
    "docs/errors.md": ("possibly", "perhaps"),
}


def run(tree, *options):
    done = subprocess.run([ROOT / "scripts" / "catalogue", *options, tree], capture_output=True, text=True, timeout=SECONDS)
    if done.stderr:
        raise AssertionError(done.stderr)
    return done.returncode, done.stdout.splitlines()


class Catalogue(CopiedTree):
    def test_finds_nothing_in_the_tree(self):
        self.assertEqual(run(self.tree, "--check"), (0, []))

    def test_names_each_file_that_was_edited_by_hand(self):
        for name, (old, new) in PRODUCTS.items():
            with self.subTest(name):
                text = (self.tree / name).read_text()
                self.change(name, old, new)
                line = text[:text.index(old)].count("\n") + 1
                expected = f"{name}:{line}: differs from {SOURCE}: run scripts/catalogue"
                self.assertEqual(run(self.tree, "--check"), (1, [expected]))
                self.assertEqual(run(self.tree), (0, []))
                self.assertEqual((self.tree / name).read_text(), text)

    def test_writes_a_change_of_the_source_everywhere(self):
        for name in PRODUCTS:
            self.change(name, "\n", "\n")  # put back at the end
        self.change(SOURCE, "KVX_E_NO_DEFAULT_PATH", "KVX_E_SOMETHING")
        self.change(SOURCE, '"KVX_E_NO_DEFAULT_PATH"', '"KVX_E_SOMETHING"')  # in textOrder
        self.assertEqual(run(self.tree), (0, []))
        for name in PRODUCTS:
            text = (self.tree / name).read_text()
            self.assertIn("KVX_E_SOMETHING", text, name)
            self.assertNotIn("NO_DEFAULT_PATH", text, name)
        self.assertEqual(run(self.tree, "--check"), (0, []))

    def test_refuses_a_catalogue_with_gaps(self):
        mistakes = [
            ('"text": "no endpoint",', "", "textOrder does not name exactly the codes with a text"),
            ('"0x8004020A"', '"0x80040209"', "0x80040209 stands twice"),
            ('"retry": "fix"', '"retry": "sometimes"', "there is no retry `sometimes`"),
            ('"meaning": "Reserved; never returned.",', "", "`meaning` is missing"),
            ('"of": "KVX_E_TLS_FAMILY"', '"of": "KVX_E_TLS"', "KVX_E_TLS is no family"),
            ('"number": "0x901"', '"number": "0x1901"', "does not fit"),
            ('"groups": [', '"groups": ', ""),
        ]
        for old, new, complaint in mistakes:
            with self.subTest(old=old):
                self.change(SOURCE, old, new)
                status, lines = run(self.tree, "--check")
                self.assertEqual((status, len(lines)), (1, 1))
                self.assertIn(complaint, lines[0])
                self.assertTrue(lines[0].startswith(SOURCE + ":1: "))
                self.doCleanups()


if __name__ == "__main__":
    unittest.main()
