"""A sandbox and a shop that is its customer, for one walk."""

import json
import os
import pathlib
import re
import shutil
import tempfile
import urllib.parse
import urllib.request

from server import TIMEOUT_SECONDS, Server


class Certificates:
    """What a sandbox needs for TLS, made by one that ran for a moment. `authority` is what its clients must trust."""

    def __init__(self, clean_up):
        place = tempfile.TemporaryDirectory(prefix="tallowin-certificates-")
        clean_up(place.cleanup)
        directory = pathlib.Path(place.name)
        self.files = directory / "service"
        end_well(start_sandbox(directory, self.files, "--tls"))
        self.authority = self.files / "ca.pem"

    def copy(self, to):
        to.mkdir(mode=0o700)
        for file in self.files.glob("*.pem"):
            shutil.copy2(file, to)


class Stage:
    """`shop`, `pay` and `payments` are the addresses of the catalogue, the payment page and the list of payments."""

    def __init__(self, clean_up, certificates=None):
        """`clean_up` takes, as TestCase.addCleanup does, what is to be called when the walk is over. With certificates
        shop and shopper reach the sandbox through TLS."""
        place = tempfile.TemporaryDirectory(prefix="tallowin-stage-")
        clean_up(place.cleanup)
        directory = pathlib.Path(place.name)
        self.merchant = directory / "merchant"
        if certificates:
            certificates.copy(directory / "service")
        sandbox = start_sandbox(directory, directory / "service", *(["--tls"] if certificates else []))
        clean_up(end_well, sandbox)
        addresses = json.loads(sandbox.ready.group())
        auto = addresses["tlsAuto" if certificates else "auto"]
        self.notifies = False
        self.pay = urllib.parse.urljoin(auto, "pay")
        self.payments = addresses["dashboard"]
        self.control = addresses["control"]
        shop = Server([os.environ["KVX_SHOP"], self.merchant, auto, "demo"],
                      r"^The shop is open at (.*)$", directory / "shop.errors", TALLOWIN_PASSWORD="demo")
        clean_up(end_well, shop)
        self.shop = shop.ready.group(1)
        self.lift_faults()

    def arm(self, **fault):
        """Has the payment service fail: the members of a fault as its control API takes them."""
        self.ask("POST", "/faults", fault)

    def lift_faults(self):
        """The payment service does as it should, except that the shop hears from it through the shopper alone: what it
        tells by itself would come at its own time."""
        self.ask("DELETE", "/faults")
        if not self.notifies:
            self.arm(kind="drop", exchange="notification", times="always")

    def let_notifications_through(self):
        self.notifies = True
        self.lift_faults()

    def set_clock_ahead(self, hours):
        """The payment service believes that it is that much later."""
        self.ask("POST", "/clock", {"ahead": hours * 3600})

    def set_seconds_to_pay(self, seconds):
        """For the shop's next payments. With less than none their time is over from the beginning."""
        defaults = self.merchant / "default.xml"
        text, changed = re.subn('PAYINITTTL="[^"]*"', f'PAYINITTTL="{seconds}"', defaults.read_text())
        if changed != 1:
            raise AssertionError(f"the account's defaults do not tell how long one can pay: {text}")
        defaults.write_text(text)

    def ask(self, method, path, content=None):
        body = None if content is None else json.dumps(content).encode()
        request = urllib.request.Request(self.control + path, body, {"Content-Type": "application/json"}, method=method)
        with urllib.request.build_opener(urllib.request.ProxyHandler({})).open(request, timeout=TIMEOUT_SECONDS):
            pass


def start_sandbox(directory, data, *options):
    command = [os.environ["KVX_SANDBOX"], "--data", data, "--port", "0", "--json", *options]
    return Server(command, r"^\{.*\}$", directory / "sandbox.errors")


def end_well(server):
    ending = server.stop()
    if ending != (0, ""):
        raise AssertionError(f"{server.name} ended with {ending}")
