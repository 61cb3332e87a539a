"""scripts/contracts finds every kind of mistake, each planted in a copy of the tree."""

import re
import unittest

from copiedtree import CopiedTree, findings_of

PAGE = "docs/contracts.md"
SOURCE = "core/planted.cpp"


class Contracts(CopiedTree):
    def findings(self):
        return findings_of("contracts", self.tree)

    def add(self, path, text):
        """A new file in the copy, for this test."""
        file = self.tree / path
        file.parent.mkdir(exist_ok=True)
        self.addCleanup(file.unlink, missing_ok=True)
        file.write_text(text)

    def plant(self, comment):
        self.add(SOURCE, f"// First line.\n{comment}\n")

    def test_finds_nothing_in_the_tree_as_it_is(self):
        self.assertEqual(self.findings(), [])

    def test_finds_a_comment_without_a_name(self):
        for comment in ("// Deliberate: odd.", "// Deliberate (Odd Name): odd.", "// Deliberate (odd) odd.",
                        "/* Deliberate (): odd. */"):
            self.plant(comment)
            self.assertEqual(self.findings(), [f"{SOURCE}:2: cite a row of {PAGE}: `Deliberate (name): ...`"], comment)

    def test_finds_a_name_without_a_row(self):
        self.plant("// Deliberate (insertion-order, odd): two rows.")
        self.assertEqual(self.findings(), [f"{SOURCE}:2: `odd` has no row in {PAGE}"])

    def test_ignores_other_words(self):
        self.plant("// Deliberately odd.")
        self.assertEqual(self.findings(), [])

    def test_finds_a_row_that_no_comment_cites(self):
        self.change(PAGE, "| `bare-digest` |", "| `odd` | a | b | `Verify.KeepsRefusingStandardSignatures` |\n| `bare-digest` |")
        self.assertRegex("\n".join(self.findings()), rf"^{PAGE}:\d+: no comment cites `odd`[^\n]*$")

    def test_finds_a_second_row_of_one_name(self):
        row = re.search(r"^\| `bare-digest` .*\n", (self.tree / PAGE).read_text(), re.MULTILINE).group(0)
        self.change(PAGE, row, row + row)
        self.assertRegex("\n".join(self.findings()), rf"^{PAGE}:\d+: `bare-digest` has a row already, in line \d+$")

    def test_finds_a_row_without_a_test(self):
        row = re.search(r"^\| `copy-one-more` .*\n", (self.tree / PAGE).read_text(), re.MULTILINE).group(0)
        self.change(PAGE, row, row.rsplit(" | ", 1)[0] + " | `by eye` |\n")
        found = "\n".join(self.findings())
        self.assertRegex(found, rf"{PAGE}:\d+: name a test that holds `copy-one-more`")
        self.assertRegex(found, rf"tests/[^\n]*:\d+: TcsNCpy.KeepsCopyingOneByteMoreThanItsCount has no place in {PAGE}")

    def test_finds_tests_that_do_not_exist(self):
        for test in ("TcsNCpy.KeepsCopyingOneByteMoreThanItsCount", "Vectors.KeepGrowingToTheRequestPlusSixteen",
                     "NativesTest.destructKeepsTheFieldAndFreesTheObjectOnce", "Examples.ShopLatePayment"):
            with self.subTest(test):
                self.change(PAGE, f"`{test}`", f"`{test}`, `{test}Odd`")
                self.assertRegex("\n".join(self.findings()), rf"^{PAGE}:\d+: there is no test {test}Odd$")
                self.doCleanups()

    def test_finds_tests_of_recipes_that_do_not_exist(self):
        for test in ("Handle.TableHoldsAllFunctions", "Java.NativesTest", "SharedLibrary.ExportsWhatItPromises"):
            with self.subTest(test):
                self.change("CONTRIBUTING.md", f"`{test}`", f"`{test}Odd`")
                self.assertRegex("\n".join(self.findings()), rf"^CONTRIBUTING.md:\d+: there is no test {test}Odd$")
                self.doCleanups()

    def test_finds_tests_of_contracts_without_a_place(self):
        for path, text, name in (
                ("tests/core/planted_test.cpp", "TEST(Odd, KeepsIt) {\n}\n", "Odd.KeepsIt"),
                ("tests/core/planted_test.cpp", "TEST_F(\n    Odd, KeepsIt) {\n}\n", "Odd.KeepsIt"),
                ("tests/core/planted_test.cpp", "TYPED_TEST(Odd, KeepIt) {\n}\n", "Odd.KeepIt"),
                ("tests/core/odd/CMakeLists.txt", "odd_test(Odd.KeepsIt odd.sh)\n", "Odd.KeepsIt"),
                ("tests/java/OddTest.java", "    @Test\n    public void keepsIt() throws Exception {\n", "OddTest.keepsIt")):
            with self.subTest(text):
                self.add(path, text)
                self.assertEqual(self.findings(), [f"{path}:1: {name} has no place in {PAGE}"])
                self.doCleanups()


if __name__ == "__main__":
    unittest.main()
