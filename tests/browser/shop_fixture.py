"""A sandbox, and a shop that uses it, for one test."""

import json
import os
import pathlib
import re
import shutil
import tempfile
import urllib.parse
import urllib.request

from server_process import TIMEOUT_SECONDS, ServerProcess


class Certificates:
    """A sandbox's files for TLS, created by a short run of one. `authority` is the certificate for clients to trust."""

    def __init__(self, clean_up):
        temporary = tempfile.TemporaryDirectory(prefix="tallowin-certificates-")
        clean_up(temporary.cleanup)
        directory = pathlib.Path(temporary.name)
        self.files = directory / "service"
        stop_cleanly(start_sandbox(directory, self.files, "--tls"))
        self.authority = self.files / "ca.pem"

    def copy(self, to):
        to.mkdir(mode=0o700)
        for file in self.files.glob("*.pem"):
            shutil.copy2(file, to)


class ShopFixture:
    """`shop`, `pay` and `payments` are the URLs of the catalogue, the payment page and the list of payments."""

    def __init__(self, clean_up, certificates=None):
        """`clean_up` registers a function to call after the test, as TestCase.addCleanup does. With `certificates`,
        shop and shopper use the sandbox over TLS."""
        temporary = tempfile.TemporaryDirectory(prefix="tallowin-browser-")
        clean_up(temporary.cleanup)
        directory = pathlib.Path(temporary.name)
        self.merchant = directory / "merchant"
        if certificates:
            certificates.copy(directory / "service")
        sandbox = start_sandbox(directory, directory / "service", *(["--tls"] if certificates else []))
        clean_up(stop_cleanly, sandbox)
        addresses = json.loads(sandbox.ready.group())
        auto = addresses["tlsAuto" if certificates else "auto"]
        self.notifies = False
        self.pay = urllib.parse.urljoin(auto, "pay")
        self.payments = addresses["dashboard"]
        self.control = addresses["control"]
        shop = ServerProcess([os.environ["KVX_SHOP"], self.merchant, auto, "demo"],
                      r"^The shop is open at (.*)$", directory / "shop.errors", TALLOWIN_PASSWORD="demo")
        clean_up(stop_cleanly, shop)
        self.shop = shop.ready.group(1)
        self.lift_faults()

    def arm(self, **fault):
        """Arms a fault in the sandbox. Arguments are the members of a fault in the control API."""
        self.ask("POST", "/faults", fault)

    def lift_faults(self):
        """Lifts all faults. Notifications stay blocked: they would come at a time that the test does not control."""
        self.ask("DELETE", "/faults")
        if not self.notifies:
            self.arm(kind="drop", exchange="notification", times="always")

    def allow_notifications(self):
        self.notifies = True
        self.lift_faults()

    def set_clock_ahead(self, hours):
        """Sets the sandbox's clock ahead."""
        self.ask("POST", "/clock", {"ahead": hours * 3600})

    def set_seconds_to_pay(self, seconds):
        """Sets the time to pay of the shop's next payments. A negative time creates expired payments."""
        defaults = self.merchant / "default.xml"
        text, changed = re.subn('PAYINITTTL="[^"]*"', f'PAYINITTTL="{seconds}"', defaults.read_text())
        if changed != 1:
            raise AssertionError(f"the account's defaults have no time to pay: {text}")
        defaults.write_text(text)

    def ask(self, method, path, content=None):
        body = None if content is None else json.dumps(content).encode()
        request = urllib.request.Request(self.control + path, body, {"Content-Type": "application/json"}, method=method)
        with urllib.request.build_opener(urllib.request.ProxyHandler({})).open(request, timeout=TIMEOUT_SECONDS):
            pass


def start_sandbox(directory, data, *options):
    command = [os.environ["KVX_SANDBOX"], "--data", data, "--port", "0", "--json", *options]
    return ServerProcess(command, r"^\{.*\}$", directory / "sandbox.errors")


def stop_cleanly(server):
    ending = server.stop()
    if ending != (0, ""):
        raise AssertionError(f"{server.name} ended with {ending}")
