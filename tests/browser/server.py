"""Programs that serve a test for as long as it takes."""

import os
import re
import subprocess
import threading

TIMEOUT_SECONDS = 60


class Server:
    """A program that tells on its output when it is ready, from then on until stop().

    It dies with the process that started it, so that an interrupted test leaves none behind.
    """

    def __init__(self, arguments, ready, errors, **environment):
        """`ready` is a pattern for the line that tells; what it found is kept under the same name. `errors` is the path
        of the file for the program's error output."""
        self.name = str(arguments[0])
        self.errors = errors
        with open(errors, "wb") as file:
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "--", *map(str, arguments)], stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE, stderr=file, text=True, env={**os.environ, **environment})
        self.ready = self.wait_until_ready(ready)

    def wait_until_ready(self, pattern):
        watchdog = threading.Timer(TIMEOUT_SECONDS, self.process.kill)
        watchdog.start()
        lines = []
        try:
            for line in self.process.stdout:
                lines.append(line)
                if found := re.search(pattern, line):
                    return found
        finally:
            watchdog.cancel()
        self.process.kill()
        self.process.wait(TIMEOUT_SECONDS)
        self.process.stdout.close()
        raise AssertionError(f"{self.name} did not start: {self.errors.read_text(errors='replace')}")

    def stop(self):
        """Ends it. Returns its status and what it had to complain about."""
        self.process.terminate()
        try:
            status = self.process.wait(TIMEOUT_SECONDS)
        finally:
            self.process.kill()  # nothing when it has ended
            self.process.wait()
            self.process.stdout.close()
        return status, self.errors.read_text(errors="replace")
