"""The fixtures under examples/pipeline, copied and run as a user would, and the page about them.

Each must run its four tests, and must have ended every sandbox that it started: programs of this test stand in for
the sandbox, note their process id and become it.
"""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(os.environ["KVX_ROOT"])
FIXTURES = ROOT / "examples" / "pipeline"
TIMEOUT_SECONDS = 240


class Pipeline(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory(prefix="tallowin-pipeline-")
        self.addCleanup(place.cleanup)
        self.directory = pathlib.Path(place.name)
        self.started = self.directory / "started"
        program = self.directory / "sandbox"
        program.write_text(f"#!/bin/sh\necho $$ >>'{self.started}'\nexec '{os.environ['KVX_SANDBOX']}' \"$@\"\n")
        program.chmod(0o755)
        self.environment = {**os.environ, "TALLOWIN_SANDBOX": str(program), "TMPDIR": place.name}

    def copy(self, name):
        copied = self.directory / "copy"
        shutil.copytree(FIXTURES / name, copied)
        return copied

    def run_in(self, directory, *command, **environment):
        """The output of a command that must succeed."""
        done = subprocess.run([str(word) for word in command], cwd=directory, env={**self.environment, **environment},
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=TIMEOUT_SECONDS, check=False)
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout

    def check_stopped(self, sandboxes):
        ids = self.started.read_text().split()
        self.assertEqual(len(ids), sandboxes)
        for process in ids:
            with self.assertRaises(ProcessLookupError):
                os.kill(int(process), 0)


class PytestFixture(Pipeline):
    def test_runs(self):
        copied = self.copy("pytest")
        out = self.run_in(copied, "/usr/bin/python3", "-B", "-m", "pytest", "-p", "no:cacheprovider", ".")
        self.assertRegex(out, r"\b4 passed\b")
        self.check_stopped(1)

    def test_fails_with_the_shop(self):
        copied = self.copy("pytest")
        shop = copied / "test_payments.py"
        shop.write_text(shop.read_text().replace(', AMOUNT="19.90", CURRENCY="EUR")', ")"))
        done = subprocess.run(["/usr/bin/python3", "-B", "-m", "pytest", "-p", "no:cacheprovider", "."], cwd=copied,
                              env=self.environment, stdout=subprocess.PIPE, text=True, timeout=TIMEOUT_SECONDS, check=False)
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stdout, r"FAILED .*another_amount")
        self.assertRegex(done.stdout, r"1 failed, 3 passed")
        self.check_stopped(1)


class JunitFixture(Pipeline):
    def test_runs(self):
        copied = self.copy("junit")
        path = os.environ["KVX_JAR"] + ":" + os.environ["KVX_JUNIT"]
        self.run_in(copied, os.environ["KVX_JAVAC"], "-encoding", "UTF-8", "-Xlint:all", "-Werror", "-cp", path, "-d", "classes",
                    "SandboxRule.java", "PaymentTest.java")
        out = self.run_in(copied, os.environ["KVX_JAVA_RUN"], "-cp", f"classes:{path}", "org.junit.runner.JUnitCore", "PaymentTest")
        self.assertIn("OK (4 tests)", out)
        self.check_stopped(1)


class PhpunitFixture(Pipeline):
    def test_runs(self):
        copied = self.copy("phpunit")
        out = self.run_in(copied, os.environ["KVX_PHP"], "-d", "ffi.enable=true", os.environ["KVX_PHPUNIT"], "--do-not-cache-result",
                          "--fail-on-warning", "--fail-on-risky", "--bootstrap", ROOT / "tests/php/bootstrap.php", "PaymentsTest.php")
        self.assertIn("OK (4 tests,", out)
        self.check_stopped(1)
        self.assertEqual(list(self.directory.glob("tallowin-tests-*")), [])


class ShellFixture(Pipeline):
    def setUp(self):
        super().setUp()
        tools = pathlib.Path(os.environ["KVX_TOOL"]).parent
        self.environment["PATH"] = f"{tools}:{os.environ['PATH']}"

    def test_runs(self):
        copied = self.copy("shell")
        work = self.directory / "work"
        work.mkdir()
        out = self.run_in(copied, "./payments.sh", work)
        self.assertEqual(len(re.findall("^ok: ", out, re.MULTILINE)), 4, out)
        self.check_stopped(1)

    def test_block_of_the_page_runs(self):
        page = (ROOT / "docs" / "pipeline.md").read_text()
        block, = re.findall(r"```sh\n(.*?)```", page, re.DOTALL)
        self.assertIn('"customer": "1002"', self.run_in(ROOT, "bash", "-euc", block))
        self.check_stopped(1)


if __name__ == "__main__":
    unittest.main()
