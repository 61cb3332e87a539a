"""scripts/apidocs makes a reference of the public headers without a warning, and fails for a name without a comment."""

import re
import subprocess
import unittest

from copiedtree import ROOT, SECONDS, CopiedTree


class Reference(CopiedTree):
    def apidocs(self):
        """Runs the script of the copy. Returns its status and what Doxygen complained about."""
        done = subprocess.run([self.tree / "scripts" / "apidocs"], capture_output=True, text=True, timeout=SECONDS)
        return done.returncode, done.stderr

    def page(self, name):
        return (self.tree / "build" / "reference" / name).read_text()

    def test_has_every_function_and_code_with_its_comment(self):
        self.assertEqual(self.apidocs(), (0, ""))
        functions = re.findall(r"^KVX_EXPORT .*?(\w+)\(", (ROOT / "include/tallowin/tallowin.h").read_text(), re.MULTILINE)
        codes = re.findall(r"^#define (KVX_(?:OK|E_\w+))", (ROOT / "include/tallowin/codes.h").read_text(), re.MULTILINE)
        self.assertGreater(len(functions), 20)
        self.assertGreater(len(codes), 34)
        for name in functions:
            self.assertRegex(self.page("tallowin_8h.html"), rf"{name}</a>")
        for name in codes:
            self.assertRegex(self.page("codes_8h.html"), rf"{name}</a>")
        self.assertIn("<b>HANDLES</b> owned by the caller", self.page("tallowin_8h.html"))
        self.assertRegex(self.page("tallowin_8h.html"), r"<li><code>url</code>: address of the server's configuration service")
        self.assertIn("tallowin_8hpp.html", self.page("index.html"))

    def test_refuses_a_function_without_a_comment(self):
        self.change("include/tallowin/tallowin.h", "#ifdef __cplusplus\n}", "KVX_EXPORT int Undescribed(void);\n\n#ifdef __cplusplus\n}")
        status, errors = self.apidocs()
        self.assertEqual(status, 1)
        self.assertIn("Member Undescribed(void) (function) of file tallowin.h is not documented", errors)

    def test_refuses_a_comment_that_names_an_unknown_command(self):
        self.change("include/tallowin/tallowin.hpp", "/// The base of all exceptions", "/// @nosuchcommand The base of all exceptions")
        status, errors = self.apidocs()
        self.assertEqual(status, 1)
        self.assertIn("nosuchcommand", errors)


if __name__ == "__main__":
    unittest.main()
