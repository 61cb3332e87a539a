"""scripts/bench compares the tables of programs with expected ratios and records them, with programs made for it."""

import pathlib
import shutil
import subprocess
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "bench"
EXPECTED = "[one_bench]\nfind 10, std::map  2.00  1.80 to 2.20\nmemory of an entry  0.50  0.50 to 0.50\n"
SOURCE = """// Finds.
//
//   find 10, std::map        2.00
//   find 99, std::map        1.00

//   find 10, std::map        7.00
"""


class Bench(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory(prefix="tallowin-bench-")
        self.addCleanup(place.cleanup)
        self.tree = pathlib.Path(place.name)
        for folder in ("scripts", "bench", "programs"):
            (self.tree / folder).mkdir()
        shutil.copy(SCRIPT, self.tree / "scripts" / "bench")
        self.expected = self.tree / "bench" / "expected.txt"
        self.expected.write_text(EXPECTED)
        self.source = self.tree / "bench" / "one_bench.cpp"
        self.source.write_text(SOURCE)

    def program(self, *rows, name="one", status=0):
        path = self.tree / "programs" / f"{name}_bench"
        table = "\n".join(["times faster or smaller      ratio  quartiles     goal", *rows])
        path.write_text(f"#!/bin/sh\ncat <<'END'\n{table}\nEND\nexit {status}\n")
        path.chmod(0o755)

    def run_bench(self, *arguments):
        done = subprocess.run([self.tree / "scripts" / "bench", "--programs", self.tree / "programs", *arguments],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60, check=False)
        return done.returncode, done.stdout

    def test_accepts_rows_within_the_spread(self):
        self.program("find 10, std::map    1.70  1.50 to 1.90  2.00  SHORT", "memory of an entry    0.49  9 bytes, std::map 5 bytes  8 bytes")
        status, text = self.run_bench()
        self.assertEqual(status, 0, text)
        self.assertNotIn("WORSE", text)
        self.assertNotIn("better", text)
        self.assertIn("2.00  SHORT\n", text)
        self.assertIn("2 rows, 1 short of their goals, 0 worse", text)

    def test_marks_rows_worse_than_both_spreads(self):
        self.program("find 10, std::map    1.50  1.40 to 1.70  none", "memory of an entry    0.50  9 bytes  8 bytes")
        status, text = self.run_bench()
        self.assertEqual(status, 1, text)
        self.assertIn("1.40 to 1.70  none  WORSE than 2.00\n", text)
        self.assertEqual(text.count("WORSE"), 1)
        self.assertIn("2 rows, 0 short of their goals, 1 worse than in bench/expected.txt\n", text)

    def test_does_not_judge_scaling(self):
        self.expected.write_text("[one_bench]\nscaling: find, 100 of 10  2.00  1.80 to 2.20\n")
        self.program("scaling: find, 100 of 10    0.50  0.40 to 0.70  none")
        status, text = self.run_bench()
        self.assertEqual(status, 0, text)
        self.assertIn("0.40 to 0.70  none\n", text)

    def test_marks_more_bytes(self):
        self.program("find 10, std::map    2.00  1.80 to 2.20  none", "memory of an entry    0.40  9 bytes  8 bytes")
        status, text = self.run_bench()
        self.assertEqual(status, 1, text)
        self.assertIn("9 bytes  8 bytes  WORSE than 0.50\n", text)

    def test_says_what_is_better_new_or_gone(self):
        self.program("find 10, std::map    3.50  3.40 to 3.70  none", "find 20, std::map    1.00  0.90 to 1.10  none")
        status, text = self.run_bench()
        self.assertEqual(status, 0, text)
        self.assertIn("better than 2.00", text)
        self.assertIn("0.90 to 1.10  none  new\n", text)
        self.assertIn("memory of an entry  is gone", text)

    def test_records_the_table_and_the_head_comment(self):
        self.program("find 10, std::map    1.50  1.40 to 1.70  none")
        self.assertEqual(self.run_bench("--record")[0], 0)
        text = self.expected.read_text()
        self.assertRegex(text, r"\[one_bench\]\nfind 10, std::map +1\.50  1\.40 to 1\.70\n$")
        self.assertEqual(self.source.read_text(), SOURCE.replace("2.00", "1.50"))

    def test_keeps_rows_that_a_filter_excludes(self):
        self.program("find 10, std::map    1.50  1.40 to 1.70  none")
        self.assertEqual(self.run_bench("--record", "one", "--", "--benchmark_filter=find")[0], 0)
        self.assertIn("memory of an entry", self.expected.read_text())

    def test_fails_with_a_program(self):
        self.program("find 10, std::map    2.00  1.80 to 2.20  none", status=1)
        self.program("find 10, std::map    2.00  1.80 to 2.20  none", name="two")
        status, text = self.run_bench()
        self.assertEqual(status, 1)
        self.assertIn("one_bench exits with 1", text)
        self.assertIn("two_bench\n", text)

    def test_fails_without_programs(self):
        self.assertEqual(self.run_bench()[0], 1)


if __name__ == "__main__":
    unittest.main()
