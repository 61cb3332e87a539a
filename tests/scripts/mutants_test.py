"""scripts/mutants finds every kind of mistake in the table of mutants, and tells a killed mutant from a surviving one.

The mistakes are planted in a copy of the tree. The runs work on a small tree of their own, with one program and one test.
"""

import os
import shutil
import subprocess
import unittest

from copiedtree import ROOT, CopiedTree, findings_of, scratch

TABLE = "tests/mutants/table.txt"
NAME = "101-bare-digest"
PATCH = f"tests/mutants/{NAME}.patch"


class Table(CopiedTree):
    def findings(self):
        return findings_of("mutants", "--check", self.tree)

    def expect_one(self, pattern):
        findings = self.findings()
        self.assertEqual(len(findings), 1, findings)
        self.assertRegex(findings[0], pattern)

    def test_finds_nothing_in_the_tree_as_it_is(self):
        self.assertEqual(self.findings(), [])

    def test_finds_a_patch_that_does_not_apply(self):
        self.change("core/icct.cpp", "kModulusBits = 512;", "kModulusBits = 514;")
        self.expect_one(r"^tests/mutants/120-[a-z-]+\.patch:1: does not apply: patch failed: core/icct.cpp:\d+$")

    def test_finds_a_test_that_does_not_exist(self):
        self.change(TABLE, "SignData.GivesTheSignaturesOfAnotherProgram", "SignData.Odd")
        self.expect_one(rf"^{TABLE}:\d+: there is no test SignData.Odd$")

    def test_finds_a_program_that_does_not_exist(self):
        self.change(TABLE, "build: core_tests", "build: odd_tests")
        self.expect_one(rf"^{TABLE}:\d+: there is no test program odd_tests$")

    def test_finds_a_contract_that_does_not_exist(self):
        self.change(TABLE, "contract: bare-digest", "contract: odd")
        self.expect_one(rf"^{TABLE}:\d+: there is no contract `odd`$")

    def test_finds_a_patch_without_a_row_and_a_row_without_a_patch(self):
        self.change(TABLE, f"\n{NAME}\n", "\n101-odd\n")
        findings = self.findings()
        self.assertEqual(len(findings), 2, findings)
        self.assertRegex(findings[0], rf"^{TABLE}:\d+: tests/mutants/101-odd.patch is missing$")
        self.assertEqual(findings[1], f"{PATCH}:1: has no place in {TABLE}")

    def test_finds_a_missing_field_and_a_line_that_is_none(self):
        self.change(TABLE, "  build: core_tests\n", "")
        self.expect_one(rf"^{TABLE}:\d+: {NAME} lacks build$")
        self.doCleanups()
        self.change(TABLE, "  build: core_tests\n", "  build: core_tests\n odd\n")
        self.expect_one(rf"^{TABLE}:\d+: a name, `field: text`, or text that goes on, four spaces in$")

    def test_finds_a_number_that_is_taken_twice(self):
        other = "101-odd"
        row = f"{other}\n  harm: odd\n  build: core_tests\n  tests: SignData.SignsEveryByteOfTheText\n"
        self.change(TABLE, f"\n{NAME}\n", f"\n{row}\n{NAME}\n")
        patch = self.tree / "tests" / "mutants" / f"{other}.patch"
        shutil.copy(self.tree / PATCH, patch)
        self.addCleanup(patch.unlink)
        findings = self.findings()
        self.assertEqual(len(findings), 2, findings)
        for finding in findings:
            self.assertRegex(finding, rf"^{TABLE}:\d+: the number 101 is taken twice$")


class Run(unittest.TestCase):
    TOP = """cmake_minimum_required(VERSION 3.22)
project(small LANGUAGES CXX)
enable_testing()
add_subdirectory(tests)
"""
    TESTS = """function(kvx_test name)
  add_executable(${name} small_test.cpp)
  add_test(NAME Small.Adds COMMAND ${name})
endfunction()
kvx_test(small_tests)
"""
    SOURCE = """#if 0  // the scripts find tests by their text
TEST(Small, Adds) {
}
#endif
int sum() {
    return 1 + 1;
}
int main() {
    return sum() == 2 ? 0 : 1;
}
"""
    CHANGE = """--- a/tests/small_test.cpp
+++ b/tests/small_test.cpp
@@ -5,3 +5,3 @@
 int sum() {{
-    return 1 + 1;
+    return {};
 }}
"""

    def setUp(self):
        self.tree = scratch(self.__class__, "small")
        self.write("CMakeLists.txt", self.TOP)
        self.write("tests/CMakeLists.txt", self.TESTS)
        self.write("tests/small_test.cpp", self.SOURCE)
        self.write("docs/contracts.md", "# Contracts\n")
        self.write(TABLE, "")
        for name in ("mutants", "contracts"):
            (self.tree / "scripts").mkdir(exist_ok=True)
            shutil.copy(ROOT / "scripts" / name, self.tree / "scripts" / name)

    def write(self, path, text):
        file = self.tree / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def mutant(self, name, expression):
        """Adds a mutant whose sum is `expression`."""
        table = (self.tree / TABLE).read_text()
        self.write(TABLE, table + f"{name}\n  harm: odd\n  build: small_tests\n  tests: Small.Adds\n\n")
        self.write(f"tests/mutants/{name}.patch", self.CHANGE.format(expression))

    def run_script(self, *arguments):
        environment = {name: value for name, value in os.environ.items() if not name.startswith("CTEST_")}
        done = subprocess.run([self.tree / "scripts" / "mutants", *arguments], capture_output=True, text=True, timeout=240,
                              env=environment)
        return done.returncode, done.stdout + done.stderr

    def test_tells_killed_from_surviving_and_broken(self):
        self.mutant("101-killed", "1 + 2")
        self.mutant("102-survives", "2 + 0")
        self.mutant("103-broken", "odd")
        self.mutant("104-killed-too", "7")
        status, output = self.run_script()
        self.assertEqual(status, 1, output)
        self.assertRegex(output, r"(?m)^101-killed +[0-9.]+ s  killed by 1$")
        self.assertRegex(output, r"(?m)^102-survives +[0-9.]+ s  SURVIVES: Small.Adds \(run\)$")
        self.assertRegex(output, r"(?m)^103-broken +[0-9.]+ s  does not build:$")
        self.assertRegex(output, r"(?m)^104-killed-too +[0-9.]+ s  killed by 1$")
        self.assertRegex(output, r"scripts/mutants: 4 mutants, 2 of them not killed\n$")
        status, output = self.run_script("101", "104-killed-too")
        self.assertEqual(status, 0, output)
        self.assertRegex(output, r"scripts/mutants: 2 mutants, 0 of them not killed\n$")

    def test_wants_the_tests_to_pass_first(self):
        self.mutant("101-killed", "1 + 2")
        source = self.tree / "tests" / "small_test.cpp"
        source.write_text(source.read_text().replace("== 2", "== 4"))
        status, output = self.run_script()
        self.assertEqual((status, output), (1, "scripts/mutants: these do not pass without any patch: Small.Adds (fail)\n"))

    def test_refuses_names_without_a_mutant(self):
        self.assertEqual(self.run_script("odd"), (2, "scripts/mutants: no such mutant\n"))


if __name__ == "__main__":
    unittest.main()
