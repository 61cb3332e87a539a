"""The program tallowin, run as a user runs it: the base class of its tests."""

import http.client
import json
import os
import pathlib
import pty
import select
import subprocess
import tempfile
import termios
import time
import unittest
import urllib.parse

from sandboxcase import Program, SandboxCase

TIMEOUT_SECONDS = 60
TOOL = os.environ["KVX_TOOL"]
ROOT = pathlib.Path(os.environ["KVX_ROOT"])


def environment(**changes):
    """The environment of the tests without what changes the program's behaviour."""
    kept = {name: value for name, value in os.environ.items() if name not in ("TALLOWIN_DIR", "NO_COLOR", "KVXDEBUG")}
    kept.update(TERM="xterm", **changes)
    return kept


class Run:
    """What one run of the program left: exit status, standard output and error as texts."""

    def __init__(self, status, out, errors):
        self.status = status
        self.out = out
        self.errors = errors

    def json(self):
        return json.loads(self.out)


class ToolCase(unittest.TestCase):
    """A temporary directory and the program."""

    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="tallowin-tool-")
        self.addCleanup(temporary.cleanup)
        self.directory = pathlib.Path(temporary.name)
        self.merchant = self.directory / "merchant"

    def tool(self, *arguments, given="", **settings):
        """Runs the program to its end with `given` as its input."""
        settings.setdefault("env", environment())
        done = subprocess.run([TOOL, *map(os.fspath, arguments)], input=given.encode(), stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=TIMEOUT_SECONDS, check=False, **settings)
        return Run(done.returncode, done.stdout.decode(errors="replace"), done.stderr.decode(errors="replace"))

    def succeed(self, *arguments, **settings):
        run = self.tool(*arguments, **settings)
        self.assertEqual(run.status, 0, run.out + run.errors)
        return run

    def fail_with(self, status, text, *arguments, **settings):
        """The run must end with this status and nothing but a message with `text` in it."""
        run = self.tool(*arguments, **settings)
        self.assertEqual((run.status, run.out), (status, ""), run.errors)
        self.assertIn(text, run.errors)
        return run


class AccountCase(SandboxCase, ToolCase):
    """The same with a running sandbox, and an account when `has_account`."""

    has_account = True

    def setUp(self):
        super().setUp()
        self.merchant = self.directory / "merchant"
        if self.has_account:
            self.set_up("--plain")

    def set_up(self, *options, given="demo\n", **settings):
        return self.succeed("setup", "--dir", self.merchant, self.service, "--user", "demo", *options, given=given,
                            **settings)


    def another_sandbox(self, *options):
        """Starts a second sandbox. Returns the addresses that it prints."""
        sandbox = Program(os.environ["KVX_SANDBOX"], "--data", self.directory / "another", "--json", *options)
        self.addCleanup(sandbox.stop)
        return json.loads(sandbox.line())

    def pay(self, decision="pay", amount="12.50", currency="EUR", order="A-1"):
        """A payment that the shopper decided. Returns its token and the address of the shopper's return."""
        out = self.succeed("pay", "--dir", self.merchant, "--amount", amount, "--currency", currency, "--order", order,
                           "--json").json()
        return out["token"], self.browser.decide(out["url"], decision)

    def control(self, method, path, body=None):
        """A request to the control API."""
        parts = urllib.parse.urlsplit(self.addresses["control"] + path)
        connection = http.client.HTTPConnection(parts.hostname, parts.port, timeout=TIMEOUT_SECONDS)
        try:
            connection.request(method, parts.path, json.dumps(body or {}), {"Content-Type": "application/json"})
            return json.loads(connection.getresponse().read())
        finally:
            connection.close()

    def arm(self, kind, **members):
        self.assertEqual(self.control("POST", "/faults", {"kind": kind, **members})["kind"], kind)

    def wait_for_faults(self):
        """Returns when every armed fault has happened."""
        deadline = time.monotonic() + TIMEOUT_SECONDS
        while self.control("GET", "/faults")["faults"]:
            self.assertLess(time.monotonic(), deadline)


class Terminal:
    """The program on a terminal of its own. Reads and writes as a person would."""

    def __init__(self, *arguments, env=None, program=(TOOL,)):
        self.shown = ""
        command = [*program, *map(os.fspath, arguments)]
        self.process, self.descriptor = pty.fork()
        if self.process == 0:
            os.execve(command[0], command, env or environment())

    def read(self):
        """More output; False at the end."""
        ready, _, _ = select.select([self.descriptor], [], [], TIMEOUT_SECONDS)
        if not ready:
            raise AssertionError("nothing more is shown: " + self.shown)
        try:
            block = os.read(self.descriptor, 65536)
        except OSError:  # how a terminal reports that the program has ended
            return False
        self.shown += block.decode(errors="replace")
        return bool(block)

    def wait_for(self, text):
        deadline = time.monotonic() + TIMEOUT_SECONDS
        while text not in self.shown:
            if not self.read() or time.monotonic() > deadline:
                raise AssertionError(f"{text!r} is not shown: {self.shown!r}")

    def has_echo(self):
        return bool(termios.tcgetattr(self.descriptor)[3] & termios.ECHO)

    def type(self, text):
        os.write(self.descriptor, text.encode())

    def finish(self):
        """Reads to the end. Returns the status of os.waitpid()."""
        while self.read():
            pass
        os.close(self.descriptor)
        return os.waitpid(self.process, 0)[1]
