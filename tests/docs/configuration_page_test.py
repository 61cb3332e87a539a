"""The lists of docs/configuration.md against the code: files, values, settings, options, variables, properties."""

import os
import pathlib
import re
import unittest

ROOT = pathlib.Path(os.environ["KVX_ROOT"])
SHIPPED = ("foundation", "xml", "core", "net", "api", "jni", "java/src", "include", "tools", "diagnosis", "sandbox", "bindings",
           "examples")
SUFFIXES = (".cpp", ".h", ".hpp", ".c", ".java", ".py", ".php", ".js", ".ts", ".mjs", ".cjs")

# How a program of the tree reads the environment. A name comes from the second pattern where the call has a variable.
READS = re.compile(r"\bgetenv\(([^()]*(?:\(\))?)\)|\bprocess\.env\b|\bos\.environ\b|\$_ENV\b")
NAMES = re.compile(r"""getenv\(\s*["'](\w+)|envname\("(\w+)|\bisSet\("([A-Z_]+)"|VARIABLE\s*=\s*["'](\w+)""" +
                   r"""|process\.env\.(\w+)|environ(?:\.get\(|\[)\s*["'](\w+)""")
OPENSSL_NAMES = {"X509_get_default_cert_file_env()": "SSL_CERT_FILE", "X509_get_default_cert_dir_env()": "SSL_CERT_DIR"}
GIVEN_A_NAME = ("name", "self::VARIABLE", "_VARIABLE")
"""Arguments of calls whose names the second pattern finds elsewhere."""


def sources(*folders):
    for folder in folders:
        for file in sorted((ROOT / folder).rglob("*")):
            if file.suffix in SUFFIXES and not {"node_modules", "vendor", "build"} & set(file.parts):
                yield file


def core(*names):
    return "".join((ROOT / "core" / name).read_text() for name in names)


class ConfigurationPage(unittest.TestCase):
    def listed(self, heading):
        """The names in the first column of the table below a heading."""
        page = (ROOT / "docs" / "configuration.md").read_text()
        section = re.search(rf"^## {heading}\n(.*?)(?=^## |\Z)", page, re.MULTILINE | re.DOTALL).group(1)
        cells = re.findall(r"^\| (`[^|]*`) \|", section, re.MULTILINE)
        names = re.findall(r"`([^`]+)`", " ".join(cells))
        self.assertEqual(len(names), len(set(names)), heading)
        return set(names)

    def test_lists_every_file(self):
        self.assertEqual(self.listed("Files"), set(re.findall(r'\[\] = "([^"]+)"', core("kvxdirectory.h"))))

    def test_lists_every_value_of_the_account(self):
        code = core("kvxctx_message.cpp", "kvxctx_setup.cpp", "kvxctx.cpp")
        read = set(re.findall(r'kConfigFile, "([\w.]+)"', code)) | set(re.findall(r'requireConfigured\(TbBorrowed\("(\w+)"', code))
        self.assertEqual(self.listed("Values of config.xml"), read)

    def test_lists_every_default_of_a_payment(self):
        table = re.search(r"AttributeNames\[\] = \{(.*?)\}", core("kvxctx_message.cpp"), re.DOTALL).group(1)
        read = set(re.findall(r'"(\w+)"', table))
        read |= set(re.findall(r'TbBorrowed\("(\w+)"\), seconds', core("kvxctx_defaults.cpp")))
        read |= set(re.findall(r'kDefaultsFile, "([\w.]+)"', core("kvxctx_setup.cpp")))
        self.assertEqual(len(read), 10)
        self.assertEqual(self.listed("Values of default.xml"), read)

    def test_lists_every_setting(self):
        read = set(re.findall(r'"([A-Z]{2,})"', core("kvxctx_settings.cpp")))
        self.assertGreater(len(read), 25)
        self.assertEqual(self.listed("Settings"), read)

    def test_lists_every_option_of_a_setup(self):
        self.assertEqual(self.listed("Options of a set-up"), set(re.findall(r'name == TbString\("(\w+)"\)', core("kvxctx.cpp"))))

    def test_lists_every_variable(self):
        read = set()
        for file in sources(*SHIPPED):
            text = file.read_text()
            for call in READS.finditer(text):
                argument = (call.group(1) or "").strip()
                known = argument[:1] in "\"'" or argument in GIVEN_A_NAME or argument in OPENSSL_NAMES or not argument
                self.assertTrue(known, f"{file}: cannot see which variable {call.group(0)} reads")
                read |= {OPENSSL_NAMES[argument]} if argument in OPENSSL_NAMES else set()
            read |= {name for names in NAMES.findall(text) for name in names if name}
        self.assertEqual(self.listed("Environment variables"), read)

    def test_lists_every_property_of_java(self):
        code = "".join(file.read_text() for file in sources("java/src"))
        read = set(re.findall(r'getProperty\("([\w.]+)"', code)) | set(re.findall(r'"([\w.]+\.library)"', code))
        self.assertEqual(self.listed("Properties of Java"), read - {"os.name", "os.arch"})


if __name__ == "__main__":
    unittest.main()
