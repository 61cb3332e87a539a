"""Programs with pipes, a shopper's browser, and a running sandbox: what tests in Python share.

Expects the path of the sandbox in the environment variable KVX_SANDBOX. Each wait has a timeout: a watchdog kills a
program that takes too long, which also ends reading from it.
"""

import html
import http.client
import json
import os
import pathlib
import re
import subprocess
import tempfile
import threading
import unittest
import urllib.parse

TIMEOUT_SECONDS = 60
RESPONSE_SECONDS = 10


class Program:
    """A program with pipes. A watchdog kills it by its process id after TIMEOUT_SECONDS."""

    def __init__(self, *arguments, **settings):
        self.process = subprocess.Popen([str(argument) for argument in arguments], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **settings)
        self.watchdog = threading.Timer(TIMEOUT_SECONDS, self.process.kill)
        self.watchdog.start()

    def line(self):
        """The next line of output; empty at the end."""
        return self.process.stdout.readline().rstrip("\n")

    def finish(self, *lines):
        """Sends these lines as the rest of the input and waits. Returns exit status, rest of the output, errors."""
        out, errors = self.process.communicate("".join(line + "\n" for line in lines))
        self.watchdog.cancel()
        return self.process.returncode, out, errors

    def stop(self):
        self.process.terminate()
        return self.finish()


class Browser:
    """A shopper's browser on the pages of the payment service."""

    @staticmethod
    def request(url, form=None):
        parts = urllib.parse.urlsplit(url)
        connection = http.client.HTTPConnection(parts.hostname, parts.port, timeout=RESPONSE_SECONDS)
        try:
            target = (parts.path or "/") + ("?" + parts.query if parts.query else "")
            if form is None:
                connection.request("GET", target)
            else:
                connection.request("POST", target, urllib.parse.urlencode(form),
                                   {"Content-Type": "application/x-www-form-urlencoded"})
            response = connection.getresponse()
            return response.status, response.getheader("Location"), response.read().decode()
        finally:
            connection.close()

    def decide(self, url, decision):
        """Opens the payment URL and submits a decision. Returns the URL of the redirect to the shop."""
        status, _, page = self.request(url)
        if status != 200:
            raise AssertionError(f"the payment page has status {status}: {page}")
        form = {name: html.unescape(value)
                for name, value in re.findall(r'<input type="hidden" name="([^"]*)" value="([^"]*)"/>', page)}
        form["decision"] = decision
        status, location, page = self.request(urllib.parse.urljoin(url, "/pay/decision"), form)
        if status != 302:
            raise AssertionError(f"the response to the decision has status {status}: {page}")
        return location


def parameters(address):
    """DATA and SIGNATURE of a URL, percent-decoded."""
    query = dict(urllib.parse.parse_qsl(urllib.parse.urlsplit(address).query))
    return query["DATA"], query["SIGNATURE"]


class SandboxCase(unittest.TestCase):
    """Each test has its own sandbox and an empty directory."""

    sandbox_options = ()
    """Further options of the sandbox."""

    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="tallowin-tests-")
        self.addCleanup(temporary.cleanup)
        self.directory = pathlib.Path(temporary.name)
        self.merchant = self.directory / "merchant"
        self.sandbox = Program(os.environ["KVX_SANDBOX"], "--data", self.directory / "service", "--json",
                               *self.sandbox_options)
        self.addCleanup(self.stop_sandbox)
        self.addresses = json.loads(self.sandbox.line())
        self.service = self.addresses["auto"]
        self.browser = Browser()

    def stop_sandbox(self):
        if self.sandbox is not None:
            sandbox, self.sandbox = self.sandbox, None
            status, _, errors = sandbox.stop()
            self.assertEqual((status, errors), (0, ""))

    def states(self):
        """The states of all payments, in the order in which they were opened."""
        body = Browser.request(self.addresses["control"] + "/payments")[2]
        return [payment["state"] for payment in json.loads(body)["payments"]]

    def check_that_an_unreadable_key_ends_the_start(self):
        """self.start() must make no key when keys/current is there and cannot be read. Requires: it has set up."""
        for make_unreadable in UNREADABLE:
            with self.subTest(make_unreadable.__name__):
                keys = private_keys(self.merchant)
                make_unreadable(self.merchant / "keys" / "current")
                status, out, errors = self.start().finish()
                self.assertEqual((status, out), (1, ""))
                self.assertIn("0x80040219", errors)
                self.assertEqual(private_keys(self.merchant), keys)


def remove(path):
    """Removes a file, a symbolic link or an empty directory."""
    if path.is_dir() and not path.is_symlink():
        path.rmdir()
    else:
        path.unlink()


def replace_by_directory(path):
    remove(path)
    path.mkdir()


def replace_by_loop(path):
    remove(path)
    path.symlink_to(path.name)


UNREADABLE = (replace_by_directory, replace_by_loop)
"""Ways to make a file one that is there and cannot be read, for every user."""


def private_keys(merchant):
    return sorted(file.name for file in (merchant / "keys" / "private").iterdir())
