"""Server programs that a test starts and stops."""

import os
import re
import subprocess
import threading

TIMEOUT_SECONDS = 60


class ServerProcess:
    """A program that prints a line when it is ready. Runs from construction to stop().

    The kernel kills it when the process that started it ends, so an interrupted test leaves no program running.
    """

    def __init__(self, arguments, ready, errors, **environment):
        """`ready` is a pattern for the line that the program prints when it is ready; the attribute `ready` is the
        match. `errors` is the file for standard error."""
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
        """Ends the program. Returns its exit status and its standard error."""
        self.process.terminate()
        try:
            status = self.process.wait(TIMEOUT_SECONDS)
        finally:
            self.process.kill()  # has no effect when it has ended
            self.process.wait()
            self.process.stdout.close()
        return status, self.errors.read_text(errors="replace")
