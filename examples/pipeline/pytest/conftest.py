"""A sandbox for the tests of a shop, started once and stopped at the end. Copy this file beside your tests.

`sandbox` is the running service. `account` is an account of the test's own: what other tests do, also at the same time,
does not concern it. `merchant` is a configuration directory that is set up for this account.

tallowin-sandbox is looked for in TALLOWIN_SANDBOX and in the path.
"""

import json
import os
import subprocess
import urllib.request
import uuid

import pytest
import tallowin

SECONDS = 30
PASSWORD = "secret"


class Sandbox:
    def __init__(self, data):
        program = os.environ.get("TALLOWIN_SANDBOX", "tallowin-sandbox")
        self.process = subprocess.Popen([program, "--data", str(data), "--json"], stdout=subprocess.PIPE, text=True)
        try:
            addresses = json.loads(self.process.stdout.readline())
            self.set_up_address = addresses["auto"]
            self.base = addresses["dashboard"]
            if not self.ask("GET", "health")["ready"]:
                raise RuntimeError("the sandbox is not ready")
        except BaseException:
            self.stop()
            raise

    def ask(self, method, path, content=None):
        """The answer of the control API."""
        body = None if content is None else json.dumps(content).encode()
        request = urllib.request.Request(self.base + path, body, {"Content-Type": "application/json"}, method=method)
        with urllib.request.urlopen(request, timeout=SECONDS) as response:
            return json.load(response)

    def control(self, method, path, content=None):
        return self.ask(method, "control/" + path, content)

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()


class Account:
    """An account of the sandbox, and what a shopper and a clock do to its payments."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.name = "test-" + uuid.uuid4().hex
        sandbox.control("POST", "accounts", {"user": self.name, "password": PASSWORD})

    def decide(self, url, token, decision):
        """Opens the payment page and decides. Returns DATA and SIGNATURE of the confirmation."""
        with urllib.request.urlopen(url, timeout=SECONDS):
            pass
        path = f"payments/decision?token={token}&account={self.name}"
        answer = self.sandbox.control("POST", path, {"decision": decision})
        return answer["data"], answer["signature"]

    def payment(self, token):
        return self.sandbox.control("GET", f"payments/newest?token={token}&account={self.name}")

    def fault(self, kind, **more):
        self.sandbox.control("POST", "faults", {"kind": kind, "account": self.name, **more})

    def step_clock(self, seconds):
        self.sandbox.control("POST", "clock", {"step": seconds, "account": self.name})


@pytest.fixture(scope="session")
def sandbox(tmp_path_factory):
    service = Sandbox(tmp_path_factory.mktemp("sandbox") / "data")
    yield service
    service.stop()


@pytest.fixture
def account(sandbox):
    account = Account(sandbox)
    yield account
    sandbox.control("POST", "reset", {"account": account.name})


@pytest.fixture
def merchant(sandbox, account, tmp_path):
    directory = str(tmp_path / "merchant")
    with tallowin.ConfigurationSetup(directory) as setup:
        setup.reconfigure(sandbox.set_up_address, account.name, PASSWORD)
    return directory
