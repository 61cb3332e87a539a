"""scripts/ffi makes declarations and codes of the C face, in a tree made for it, and refuses what it does not understand."""

import ctypes
import importlib.util
import pathlib
import subprocess
import tempfile
import unittest

from copiedtree import ROOT, SECONDS, findings_of

FACE = """/* A face. */
#ifndef TALLOWIN_H
#define TALLOWIN_H
#include <stdint.h>
#define TWO_LINES \\
  int notAFunction(void);
#ifdef __cplusplus
extern "C" {
#endif
typedef void* KVX_HANDLE; /* a comment; with a semicolon */
/* KVX_EXPORT int notAFunctionEither(void); */
KVX_EXPORT char const* Version(void);
KVX_EXPORT int32_t Thing_Get(KVX_HANDLE handle, char const* name,
                             int32_t* size, char* buffer);
#ifdef __cplusplus
}
#endif
#endif
"""

VERSION = '#define TALLOWIN_VERSION_STRING "2.7.1"\n'

CODES = """#ifdef __cplusplus
#define KVX_CODE(value) static_cast<int32_t>(value)
#else
#define KVX_CODE(value) ((int32_t)(value))
#endif
#define KVX_OK        KVX_CODE(0)
#define KVX_E_LOST    KVX_CODE(0x8004020D) /* nowhere; no text */
#define KVX_E_SMALL   KVX_CODE(0x7FFFFFFF)
"""

DECLARATIONS = """typedef void* KVX_HANDLE;
char const* Version(void);
int32_t Thing_Get(KVX_HANDLE handle, char const* name, int32_t* size, char* buffer);
"""


class Ffi(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory(prefix="tallowin-scripts-")
        self.addCleanup(place.cleanup)
        self.tree = pathlib.Path(place.name)
        self.headers = self.tree / "include" / "tallowin"
        self.headers.mkdir(parents=True)
        self.face = self.headers / "tallowin.h"
        self.made = self.headers / "tallowin-ffi.h"
        self.face.write_text(FACE)
        (self.headers / "version.h").write_text(VERSION)
        (self.headers / "codes.h").write_text(CODES)

    def module(self, path):
        """A Python module that was written."""
        spec = importlib.util.spec_from_file_location("made", self.tree / path)
        module = importlib.util.module_from_spec(spec)
        spec.loader.exec_module(module)
        return module

    def run_script(self):
        return subprocess.run([ROOT / "scripts" / "ffi", self.tree], capture_output=True, text=True, timeout=SECONDS)

    def test_finds_the_files_of_this_tree_as_it_would_write_them(self):
        self.assertEqual(findings_of("ffi", "--check"), [])

    def test_writes_declarations_alone(self):
        self.assertEqual(self.run_script().returncode, 0)
        comment, _, declarations = self.made.read_text().rpartition("*/\n")
        self.assertEqual(declarations, DECLARATIONS)
        self.assertNotIn("#", comment)

    def test_writes_a_table_for_python(self):
        self.run_script()
        made = self.module("bindings/python/src/tallowin/_declarations.py")
        self.assertEqual(made.VERSION, "2.7.1")
        self.assertEqual(made.FUNCTIONS, {
            "Version": (ctypes.c_char_p, []),
            "Thing_Get": (ctypes.c_int32, [ctypes.c_void_p, ctypes.c_char_p, ctypes.POINTER(ctypes.c_int32), ctypes.c_char_p])})
        codes = self.module("bindings/python/src/tallowin/codes.py").ResultCode
        self.assertEqual({code.name: code.value for code in codes}, {"OK": 0, "LOST": 0x8004020D - (1 << 32), "SMALL": 0x7FFFFFFF})

    def test_writes_declarations_and_codes_for_php(self):
        self.run_script()
        made = (self.tree / "bindings/php/tallowin.ffi").read_text()
        self.assertTrue(made.startswith('#define FFI_SCOPE "TALLOWIN"\n#define FFI_LIB "libtallowin.so.2"\n/*'), made)
        self.assertTrue(made.endswith("*/\n" + DECLARATIONS), made)
        codes = (self.tree / "bindings/php/src/ResultCode.php").read_text()
        self.assertIn(f"    public const LOST = {0x8004020D - (1 << 32)}; // 0x8004020D nowhere\n", codes)

    def test_writes_declarations_and_codes_for_node(self):
        self.run_script()
        made = (self.tree / "bindings/node/lib/declarations.js").read_text()
        self.assertIn("  version: '2.7.1',\n", made)
        self.assertIn("    'const char *Version()',\n"
                      "    'int32_t Thing_Get(uintptr_t handle, const uint8_t *name, int32_t *size, uint8_t *buffer)',\n", made)
        self.assertIn("  LOST: 0x8004020D | 0, // nowhere\n", (self.tree / "bindings/node/lib/resultcode.js").read_text())
        self.assertIn(f"  /** nowhere */\n  readonly LOST: {0x8004020D - (1 << 32)};\n",
                      (self.tree / "bindings/node/lib/resultcode.d.ts").read_text())

    def test_finds_a_file_that_is_missing_or_not_up_to_date(self):
        complaint = "include/tallowin/tallowin-ffi.h: run scripts/ffi"
        self.assertIn(complaint, findings_of("ffi", "--check", self.tree))
        self.run_script()
        self.assertEqual(findings_of("ffi", "--check", self.tree), [])
        self.face.write_text(FACE.replace("Version", "GetVersion"))
        self.assertIn(complaint, findings_of("ffi", "--check", self.tree))
        self.assertEqual(self.made.read_text().count("GetVersion"), 0)

    def test_refuses_a_line_that_is_no_code(self):
        (self.headers / "codes.h").write_text(CODES + "#define KVX_E_ODD 7\n")
        done = self.run_script()
        self.assertEqual((done.returncode, done.stdout), (1, "include/tallowin/codes.h: a line is no code\n"))

    def test_refuses_what_is_no_declaration_it_knows(self):
        for line in ("int32_t Unexported(void);", "KVX_EXPORT int32_t Callback(void (*function)(void));",
                     "struct Thing { int member; };", "KVX_EXPORT extern int number;"):
            with self.subTest(line):
                self.face.write_text(FACE.replace("typedef", line + "\ntypedef"))
                done = self.run_script()
                self.assertEqual(done.returncode, 1)
                self.assertIn("include/tallowin/tallowin.h: neither a function nor a type: ", done.stdout)
                self.assertFalse(self.made.exists())


if __name__ == "__main__":
    unittest.main()
