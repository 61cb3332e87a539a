"""Runs the commands of the tutorial pages as written, and compares the reference pages with the programs.

Order: the base class, docs/first-payment.md, docs/rehearse-failures.md, docs/sandbox.md. Fixed ports of a page become
free ones.
"""

import json
import os
import pathlib
import re
import tempfile
import unittest
import urllib.request

from examples_test import ROOT
from sandboxcase import RESPONSE_SECONDS, Browser, Program, parameters


def commands_of(page):
    """The fenced blocks of shell commands on a page, in order."""
    return re.findall(r"^```sh\n(.*?)^```$", (ROOT / "docs" / page).read_text(), re.MULTILINE | re.DOTALL)


def get(url):
    with urllib.request.urlopen(url, timeout=RESPONSE_SECONDS) as response:
        return response.read().decode()


class PageCase(unittest.TestCase):
    """A temporary directory with the layout of a built tree, and a shell in it."""

    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="tallowin-pages-")
        self.addCleanup(temporary.cleanup)
        self.directory = pathlib.Path(temporary.name)
        (self.directory / "build").mkdir()
        (self.directory / "build" / "demo").symlink_to(os.environ["KVX_BUILD"])
        for name in ("include", "examples"):
            (self.directory / name).symlink_to(ROOT / name)

    def shell(self, command):
        """Starts a command of the page; the program replaces the shell."""
        return Program("bash", "-euc", "exec " + command, cwd=self.directory)

    def serve(self, command):
        """Starts the sandbox with the page's command, but on free ports."""
        self.assertIn("--port 8480 --control-port 8481", command)
        service = self.shell(command.replace("--port 8480 --control-port 8481", "--port 0 --control-port 0 --json"))
        self.addCleanup(lambda: self.assertEqual(service.stop()[0], 0))
        self.addresses = json.loads(service.line())

    def with_actual_ports(self, command):
        self.assertRegex(command, "127.0.0.1:848[01]")
        return (command.replace("127.0.0.1:8480", f"127.0.0.1:{self.addresses['port']}")
                .replace("127.0.0.1:8481", f"127.0.0.1:{self.addresses['controlPort']}"))


class FirstPayment(PageCase):
    def test_page_leads_to_a_captured_payment(self):
        watch, serve, make = commands_of("first-payment.md")
        self.assertEqual(watch, "./demo.sh\n")  # DemonstrationScript and Demonstration test it
        self.serve(serve)
        compile_command, run_command = make.splitlines()
        self.assertEqual(self.shell(compile_command).finish(), (0, "", ""))
        payment = self.shell(self.with_actual_ports(run_command))
        shown = Browser().decide(payment.line(), "pay")
        self.assertTrue(shown.startswith(f"http://127.0.0.1:{self.addresses['port']}/returned?"), shown)
        data, signature = parameters(shown)
        page = get(shown)
        self.assertIn(signature, page)
        self.assertIn(data.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;").replace('"', "&quot;"), page)
        status, out, errors = payment.finish(data, signature)
        self.assertEqual((status, out, errors), (0, "The payment is captured.\n", ""))
        self.assertIn("captured", get(self.addresses["dashboard"]))


class RehearsedFailures(PageCase):
    def test_commands_of_the_page_are_accepted(self):
        serve, arm, options, lift, others, embedded = commands_of("rehearse-failures.md")
        self.serve(serve.replace("tallowin-sandbox --data DIR", "build/demo/sandbox/tallowin-sandbox --data service"))
        self.assertEqual(self.armed(), [])
        self.run_curl(arm)
        self.assertEqual([(fault["kind"], fault["exchange"]) for fault in self.armed()], [("drop", "capture")])
        self.run_curl(lift)
        self.assertEqual(self.armed(), [])
        self.assertEqual(self.state()["serverKeyId"], "1-SERVER-1")
        for command in others.splitlines():
            self.run_curl(command)
        self.assertEqual(self.state()["serverKeyId"], "1-SERVER-2")
        self.assertEqual(self.state()["clock"]["ahead"], 7200)
        for command, faults in ((options, 2), (embedded, 0)):
            program = command.replace("tallowin-sandbox --data DIR", "build/demo/sandbox/tallowin-sandbox --data other")
            service = self.shell(program.strip() + " --json --port 0 --control-port 0" if faults else program.strip())
            addresses = json.loads(service.line())
            self.assertEqual(len(json.loads(get(addresses["control"] + "/faults"))["faults"]), faults)
            self.assertEqual(service.stop()[0], 0)

    def test_faults_of_the_page_can_be_armed(self):
        page = (ROOT / "docs" / "rehearse-failures.md").read_text()
        rows = re.findall(r"^\| [^|]* \| ([^|]*) \|[^|]*\|$", page, re.MULTILINE)
        faults = [text for row in rows for text in re.findall(r"`([a-z0-9-]+(?:,[^`]*)?)`", row)]
        self.assertGreater(len(faults), 10)
        self.serve("build/demo/sandbox/tallowin-sandbox --data service --port 8480 --control-port 8481 " +
                   " ".join(f"--fault '{fault}'" for fault in faults))
        self.assertEqual(len(self.armed()), len(faults))

    def run_curl(self, command):
        curl = self.with_actual_ports(command.strip()).replace("curl ", "curl -sSf -m 20 ")
        status, out, errors = self.shell(curl).finish()
        self.assertEqual((status, errors), (0, ""), out)

    def state(self):
        return json.loads(get(self.addresses["control"]))

    def armed(self):
        return json.loads(get(self.addresses["control"] + "/faults"))["faults"]


class SandboxReference(PageCase):
    def setUp(self):
        super().setUp()
        self.page = (ROOT / "docs" / "sandbox.md").read_text()

    def test_page_lists_every_option(self):
        status, out, _ = self.shell("build/demo/sandbox/tallowin-sandbox --help").finish()
        self.assertEqual(status, 0)
        options = set(re.findall(r"^  (--[a-z-]+)", out, re.MULTILINE))
        self.assertGreater(len(options), 8)
        self.assertEqual(options, set(re.findall(r"^\| `(--[a-z-]+)", self.page, re.MULTILINE)))

    def test_page_lists_every_kind_of_fault_and_every_member(self):
        self.serve("build/demo/sandbox/tallowin-sandbox --data service --tls --proxy --port 8480 --control-port 8481")
        members = re.search(r"^## The line of `--json`\n(.*?)^## ", self.page, re.MULTILINE | re.DOTALL).group(1)
        rows = re.findall(r"^\| (`[^|]*) \|", members, re.MULTILINE)
        listed = {name for row in rows for name in row.strip("`").split("`, `")}
        self.assertEqual(listed, set(self.addresses) | {"token"})  # which stands in the line when one is demanded
        kinds = json.loads(get(self.addresses["control"] + "/faults/kinds"))["kinds"]
        self.assertGreater(len(kinds), 20)
        rows = ["| `{}` | {} | {} | {} | {} |".format(
            kind["name"], kind["meaning"], "yes" if kind["carriedOut"] else "no", ", ".join(kind["exchanges"]),
            ", ".join(f"`{parameter}`" for parameter in kind["parameters"])) for kind in kinds]
        table = self.page.split("<!-- kinds -->")[1].split("<!-- /kinds -->")[0]
        self.assertEqual([line for line in table.splitlines() if line.startswith("| `")], rows)


if __name__ == "__main__":
    unittest.main()
