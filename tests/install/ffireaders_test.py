"""The installed tallowin-ffi.h as it stands, read by the foreign function interfaces of other languages.

CMakeLists.txt sets environment variables with the paths of the header and of the library.
"""

import json
import os
import pathlib
import re
import subprocess
import unittest

HEADER = pathlib.Path(os.environ["KVX_FFI_HEADER"])
LIBRARY = os.environ["KVX_FFI_LIBRARY"]
SECONDS = 60
BAD_HANDLE = 0x80040216 - (1 << 32)


def functions():
    """The names of all functions in the header."""
    return re.findall(r"(\w+)\(", HEADER.read_text().partition("*/\n")[2].partition("*/\n")[2])


class FfiReader(unittest.TestCase):
    """What every reader must get out of the header."""

    def check(self, version, names, refused):
        self.assertRegex(version, r"^\d+\.\d+\.\d+$")
        self.assertEqual(sorted(names), sorted(functions()))
        self.assertEqual(refused, BAD_HANDLE)

    def test_header_has_no_preprocessor_lines(self):
        self.assertNotIn("#", HEADER.read_text())
        self.assertGreater(len(functions()), 20)


class Cffi(FfiReader):
    def test_python_reads_and_calls(self):
        import cffi
        ffi = cffi.FFI()
        ffi.cdef(HEADER.read_text())
        library = ffi.dlopen(LIBRARY)
        found = [name for name in dir(library) if getattr(library, name)]
        self.check(ffi.string(library.KVX_GetVersion()).decode(), found,
                   library.MessageObject_SetAttribute(ffi.NULL, b"A", b"1"))


PROGRAM = r"""<?php
[, $header, $library, $names] = $argv;
$face = FFI::cdef(file_get_contents($header), $library); // fails for a function that the library lacks
$found = array_filter(json_decode($names), fn ($name) => FFI::typeof($face->$name)->getPointerType()->getKind() === FFI\CType::TYPE_FUNC);
echo json_encode([$face->KVX_GetVersion(), array_values($found), $face->MessageObject_SetAttribute(null, 'A', '1')]);
"""


class Php(FfiReader):
    def test_php_reads_and_calls(self):
        done = subprocess.run([os.environ["KVX_PHP"], "-d", "ffi.enable=true", "--", HEADER, LIBRARY, json.dumps(functions())],
                              input=PROGRAM, capture_output=True, text=True, timeout=SECONDS)
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
        self.check(*json.loads(done.stdout))


if __name__ == "__main__":
    unittest.main()
