"""Scripts of the tree, run on a copy of it in which a test plants mistakes."""

import pathlib
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
SECONDS = 120


def scratch(case, name):
    """A path in a new directory that goes with the test class `case`."""
    place = tempfile.TemporaryDirectory(prefix="tallowin-scripts-")
    case.addClassCleanup(place.cleanup)
    return pathlib.Path(place.name) / name


def findings_of(script, *arguments):
    """The lines of what scripts/`script` finds."""
    done = subprocess.run([ROOT / "scripts" / script, *arguments], capture_output=True, text=True, timeout=SECONDS)
    nothing = f"scripts/{script}: nothing found\n"
    if done.stderr or (done.returncode == 0) != (done.stdout == nothing):
        raise AssertionError(f"status {done.returncode}, prints {done.stdout!r}, complains {done.stderr!r}")
    return done.stdout.splitlines() if done.returncode else []


class CopiedTree(unittest.TestCase):
    """Tests on `tree`, a copy of this tree."""

    @classmethod
    def setUpClass(cls):
        cls.tree = scratch(cls, "tree")
        shutil.copytree(ROOT, cls.tree, ignore=shutil.ignore_patterns("build", ".git"))

    def change(self, path, old, new):
        """Replaces the first `old` in a file of the copy, for this test."""
        file = self.tree / path
        text = file.read_text()
        self.assertIn(old, text)
        self.addCleanup(file.write_text, text)
        file.write_text(text.replace(old, new, 1))
