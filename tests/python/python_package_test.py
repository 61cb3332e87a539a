"""The Python package as it is published: types, wheel, version.

CMakeLists.txt sets environment variables with the paths of the tree and of the library.
"""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest
import zipfile

ROOT = pathlib.Path(os.environ["KVX_ROOT"])
PACKAGE = ROOT / "bindings" / "python"
SECONDS = 300

# What a typed program of a user looks like, and one with a mistake in each line.
TYPED = """
import tallowin
from typing import Optional

def pay(directory: str) -> str:
    with tallowin.MessageFactory(directory) as factory, factory.create_pay_init() as order:
        order.set_attribute("AMOUNT", "19.90")
        value: Optional[str] = order.find_attribute("TOKEN")
        order.require(MSGTYPE="PayInit")
        return order.get_url() + (value or "")

try:
    pay("x")
except tallowin.ResultError as failure:
    number: int = failure.code
    print(failure.name + failure.reason, number == tallowin.ResultCode.SERVER_ERROR)
"""

MISTAKEN = """
import tallowin
factory = tallowin.MessageFactory("x")
factory.create_pay_init("PayInit")
factory.verify_pay_confirm(b"data", "signature")
factory.create_pay_init().set_attribute("AMOUNT", 19.90)
text: int = factory.create_pay_init().get_url()
"""


class PythonPackage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        place = tempfile.TemporaryDirectory(prefix="tallowin-python-")
        cls.addClassCleanup(place.cleanup)
        cls.place = pathlib.Path(place.name)
        shutil.copytree(PACKAGE, cls.place / "source", ignore=shutil.ignore_patterns("__pycache__"))  # builds write beside it
        cls.run_python("-m", "pip", "--quiet", "wheel", "--no-index", "--no-deps", "--no-build-isolation", "--wheel-dir",
                       cls.place / "wheels", cls.place / "source")
        cls.wheel, = (cls.place / "wheels").iterdir()
        cls.run_python("-m", "pip", "--quiet", "install", "--no-index", "--no-deps", "--target", cls.place / "site", cls.wheel)

    @classmethod
    def run_python(cls, *arguments, status=0, **variables):
        done = subprocess.run([sys.executable, "-B", *arguments], capture_output=True, text=True, timeout=SECONDS, cwd=cls.place,
                              env={**os.environ, "PIP_DISABLE_PIP_VERSION_CHECK": "1", "PIP_ROOT_USER_ACTION": "ignore",
                                   "MYPY_CACHE_DIR": str(cls.place / "types"), **variables})
        if done.returncode != status:
            raise AssertionError(f"{arguments}: status {done.returncode}\n{done.stdout}{done.stderr}")
        return done.stdout

    def test_wheel_holds_the_package_and_nothing_else(self):
        version = self.run_python("-c", "from tallowin._declarations import VERSION; print(VERSION, end='')",
                                  PYTHONPATH=str(PACKAGE / "src"))
        self.assertEqual(self.wheel.name, f"tallowin-{version}-py3-none-any.whl")
        names = zipfile.ZipFile(self.wheel).namelist()
        expected = [f"tallowin/{path.name}" for path in (PACKAGE / "src" / "tallowin").iterdir() if path.is_file()]
        self.assertEqual(sorted(name for name in names if ".dist-info/" not in name), sorted(expected))
        self.assertIn("tallowin/py.typed", expected)

    def test_installed_wheel_runs(self):
        program = "import tallowin; print(tallowin.__file__, tallowin.version())"
        file, version = self.run_python("-c", program, PYTHONPATH=str(self.place / "site")).split()
        self.assertTrue(pathlib.Path(file).is_relative_to(self.place / "site"), file)
        self.assertRegex(version, r"^\d+\.\d+\.\d+$")

    def test_types_are_strict_and_complete(self):
        self.run_python("-m", "mypy", "--strict", "--config-file", PACKAGE / "pyproject.toml", PACKAGE / "src")

    def test_types_are_found_by_programs_that_use_it(self):
        (self.place / "typed.py").write_text(TYPED)
        (self.place / "mistaken.py").write_text(MISTAKEN)
        installed = {"MYPYPATH": str(self.place / "site")}
        self.run_python("-m", "mypy", "--strict", "typed.py", **installed)
        out = self.run_python("-m", "mypy", "--strict", "mistaken.py", status=1, **installed)
        self.assertEqual([line.split(":")[1] for line in out.splitlines()[:-1]], ["4", "5", "6", "7"], out)


if __name__ == "__main__":
    unittest.main()
