"""scripts/lifecycle keeps the files it makes as ledger/lifecycle.json has them, and refuses a table with gaps."""

import subprocess
import unittest

from copiedtree import CopiedTree, ROOT, SECONDS

SOURCE = "ledger/lifecycle.json"
PRODUCTS = {
    "ledger/lifecycletable.h": ("Event::kCaptureDone,", "Event::kCaptureFailed,"),
    "docs/paid-once.md": ("authorised --> capturing", "authorised --> captured"),
}


def run(tree, *options):
    done = subprocess.run([ROOT / "scripts" / "lifecycle", *options, tree], capture_output=True, text=True, timeout=SECONDS)
    if done.stderr:
        raise AssertionError(done.stderr)
    return done.returncode, done.stdout.splitlines()


class Lifecycle(CopiedTree):
    def test_finds_nothing_in_the_tree(self):
        self.assertEqual(run(self.tree, "--check"), (0, []))

    def test_names_each_file_that_was_edited_by_hand(self):
        for name, (old, new) in PRODUCTS.items():
            with self.subTest(name):
                text = (self.tree / name).read_text()
                self.change(name, old, new)
                line = text[:text.index(old)].count("\n") + 1
                self.assertEqual(run(self.tree, "--check"), (1, [f"{name}:{line}: differs from {SOURCE}: run scripts/lifecycle"]))
                self.assertEqual(run(self.tree), (0, []))
                self.assertEqual((self.tree / name).read_text(), text)

    def test_refuses_a_table_with_gaps(self):
        for old, new, complaint in (
                ('"event": "timed_out"', '"event": "forgotten"', "waiting forgotten expired: no such event"),
                ('"event": "timed_out",           "to": "expired"', '"event": "timed_out",           "to": "gone"',
                 "waiting timed_out gone: no such state"),
                ('"event": "timed_out"', '"event": "found_nothing"', "waiting found_nothing stands twice"),
                ('"job": "takeover"', '"job": "sleep"', "capturing: there is no job `sleep`"),
                ('"by": ["person"]', '"by": ["stranger"]', "resolved_authorised: somebody unknown may cause it")):
            with self.subTest(complaint):
                text = (self.tree / SOURCE).read_text()
                self.change(SOURCE, old, new)
                self.assertEqual(run(self.tree, "--check"), (1, [f"{SOURCE}:1: {complaint}"]))
                (self.tree / SOURCE).write_text(text)


if __name__ == "__main__":
    unittest.main()
