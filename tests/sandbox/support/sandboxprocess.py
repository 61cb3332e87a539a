"""The sandbox program as a process. CMakeLists.txt tells its path in KVX_SANDBOX. Every wait is bounded."""

import json
import os
import pathlib
import select
import signal
import ssl
import subprocess
import tempfile
import time
import unittest

TIMEOUT_SECONDS = 60


class SandboxProcess:
    """A sandbox on a data directory, with free ports."""

    def __init__(self, data, *options):
        # A session of its own, so that what it leaves behind can be found.
        self.process = subprocess.Popen([os.environ["KVX_SANDBOX"], "--data", str(data), "--json", *options], bufsize=0,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        start_new_session=True)
        self.line = b""

    def poll_line(self, seconds=0):
        """Whether the line of addresses is there, or the end of the output."""
        if not self.line.endswith(b"\n") and select.select([self.process.stdout], [], [], seconds)[0]:
            piece = os.read(self.process.stdout.fileno(), 65536)
            self.line += piece
            return not piece or self.line.endswith(b"\n")
        return self.line.endswith(b"\n")

    def addresses(self):
        """What the program tells once it is ready."""
        deadline = time.monotonic() + TIMEOUT_SECONDS
        while not self.poll_line(max(0, deadline - time.monotonic())):
            if time.monotonic() > deadline:
                raise AssertionError(f"the sandbox did not tell its addresses in time: {self.line!r}")
        if not self.line.endswith(b"\n"):
            raise AssertionError(f"the sandbox did not start: {self.finish()}")
        return json.loads(self.line)

    def finish(self):
        """Waits for the end. Returns the exit status, what it wrote after its addresses, and its errors."""
        try:
            out, errors = self.process.communicate(timeout=TIMEOUT_SECONDS)
        except subprocess.TimeoutExpired as late:
            self.end_session()
            raise AssertionError("the sandbox did not end, or left a process behind") from late
        if self.end_session():
            raise AssertionError("the sandbox left a process behind")
        return self.process.returncode, out.decode(), errors.decode()

    def end_session(self):
        """Kills whatever is left. Returns whether there was anything."""
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            return False
        return True

    def stop(self):
        self.process.terminate()
        return self.finish()

    def kill(self):
        """As kill -9 does, without further ado; finish() waits for the end."""
        os.kill(self.process.pid, signal.SIGKILL)

    def discard(self):
        """Whatever state it is in, it is gone afterwards."""
        if self.process.returncode is None:
            self.end_session()
            self.process.wait(TIMEOUT_SECONDS)
        self.process.stdout.close()
        self.process.stderr.close()


class SandboxCase(unittest.TestCase):
    """Each test has an empty directory of its own, and starts sandboxes as it likes."""

    KILLED = (-signal.SIGKILL, "", "")
    STOPPED = (0, "", "")

    def setUp(self):
        place = tempfile.TemporaryDirectory(prefix="tallowin-sandbox-")
        self.addCleanup(place.cleanup)
        self.data = pathlib.Path(place.name) / "data"

    def start(self, *options):
        sandbox = SandboxProcess(self.data, *options)
        self.addCleanup(sandbox.discard)
        return sandbox


def trusting(authority):
    """A TLS context that trusts the certificates of this file and no other, and checks the host's name."""
    return ssl.create_default_context(cafile=authority)
