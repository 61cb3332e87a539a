"""The description of the control API against the answers of every address in it.

CMakeLists.txt sets KVX_ROOT to the tree and KVX_SANDBOX to the sandbox.
"""

import json
import os
import pathlib
import re
import unittest
import urllib.error
import urllib.request

import jsonschema

from driving_page_test import Driven
from sandboxprocess import TIMEOUT_SECONDS

ROOT = pathlib.Path(os.environ["KVX_ROOT"])


class OpenApi(Driven):
    def setUp(self):
        super().setUp()
        self.start("--tls", "--proxy", "--lenient")
        self.publish()
        self.base = self.addresses["dashboard"].rstrip("/")
        self.api = self.send("GET", "/control/openapi.json")[1]
        self.seen = set()

    def send(self, method, target, body=None):
        """Status, content and headers of an answer."""
        data = None if body is None else json.dumps(body).encode()
        headers = {"Content-Type": "application/json"} if method == "POST" else {}
        request = urllib.request.Request(self.base + target, data, headers, method=method)
        try:
            response = urllib.request.urlopen(request, timeout=TIMEOUT_SECONDS)
        except urllib.error.HTTPError as refused:
            response = refused
        with response:
            text = response.read().decode()
            isLines = response.headers["Content-Type"] == "application/x-ndjson"
            content = [json.loads(line) for line in text.splitlines()] if isLines else json.loads(text)
            return response.status, content, response.headers

    def check(self, schema, content):
        """Resolves references against the description."""
        jsonschema.Draft202012Validator({**schema, "components": self.api["components"]}).validate(content)

    def call(self, method, path, status=200, body=None, query="", **names):
        """Sends what the description says about the address, and compares the answer with it."""
        operation = self.api["paths"][path][method.lower()]
        described = {parameter["name"] for parameter in operation.get("parameters", []) if parameter["in"] == "query"}
        if status < 400:
            self.seen.add((method, path))
            self.assertLessEqual({piece.split("=")[0] for piece in query.split("&") if piece}, described, path)
            if body is not None:
                self.check(operation["requestBody"]["content"]["application/json"]["schema"], body)
        target = path.format(**names) + ("?" + query if query else "")
        found, content, headers = self.send(method, target, body)
        self.assertEqual(found, status, f"{method} {target}: {content}")
        response = operation["responses"][str(status)]
        if "$ref" in response:
            response = self.api["components"]["responses"][response["$ref"].rsplit("/", 1)[1]]
        (media, described), = response["content"].items()
        self.assertEqual(headers["Content-Type"], media)
        for row in content if media == "application/x-ndjson" else [content]:
            self.check(described["schema"], row)
        return content

    def check_event_stream(self, seen, names):
        """What comes after the exchange `seen` begins with events of these names. They are as the description says."""
        self.seen.add(("GET", "/control/events"))
        (media, described), = self.api["paths"]["/control/events"]["get"]["responses"]["200"]["content"].items()
        kinds = {name.removesuffix("Event").lower(): self.api["components"]["schemas"][name]
                 for name in (row["$ref"].rsplit("/", 1)[1] for row in described["schema"]["anyOf"])}
        request = urllib.request.Request(self.base + "/control/events?account=demo", headers={"Last-Event-ID": str(seen)})
        with urllib.request.urlopen(request, timeout=TIMEOUT_SECONDS) as response:
            self.assertEqual(response.headers["Content-Type"], media)
            self.assertEqual(self.call("GET", "/control/events", 400, query="after=x")["error"][:4], "Last")
            self.open_payment("events", "E-1", NOTIFYADDRESS="shop@example")
            self.call("POST", "/control/payments/decision", 200, {"decision": "pay"}, query="token=events")
            missing = set(names)
            name = None
            for line in response:  # the wait for each line has a timeout
                field, _, value = line.decode().rstrip("\n").partition(": ")
                name = value if field == "event" else name
                if field == "data":
                    self.check(kinds[name], json.loads(value))
                    missing.discard(name)
                if not missing:
                    return
        self.fail(f"the stream ended without {missing}")

    def test_answers_are_as_described(self):
        call = self.call
        call("GET", "/health")
        call("GET", "/control/openapi.json")
        fault = call("POST", "/control/faults", 201, {"kind": "delay", "exchange": "capture", "seconds": 0.5, "skip": 1})
        call("POST", "/control/faults", 400, {"kind": "dorp"})
        call("GET", "/control/faults")
        call("GET", "/control/faults/kinds")
        call("DELETE", "/control/faults/{id}", id=fault["id"])
        call("DELETE", "/control/faults/{id}", 404, id=fault["id"])
        call("DELETE", "/control/faults", query="account=demo")
        call("POST", "/control/faults", 201, {"kind": "wrong-amount", "exchange": "decision"})
        first = self.open_payment("t1", "A-17", NOTIFYADDRESS="shop@example")
        call("POST", "/control/payments/{id}/decision", 200, {"decision": "pay"}, id=first)
        call("POST", "/control/payments/{id}/decision", 409, {"decision": "decline"}, id=first)
        call("GET", "/control/payments/{id}", query="until=notified&seconds=60", id=first)
        call("GET", "/control/payments/{id}", 409, query="until=captured&seconds=0", id=first)
        call("GET", "/control/payments/{id}", 404, id="P0")
        self.open_payment("t2", "A-18")
        call("POST", "/control/payments/decision", 200, {"decision": "cancel"}, query="token=t2&account=demo")
        call("GET", "/control/payments/newest", query="order=A-17&until=authorised")
        call("GET", "/control/payments", query="account=demo&limit=1")
        call("GET", "/control/payments", 400, query="acount=demo")
        call("GET", "/control/exchanges", query="kind=page&before=end")
        call("GET", "/control/notifications", query="payment=" + first)
        call("POST", "/control/notifications/{number}/resend", 201, number=1)
        self.check_event_stream(1, ["payment", "exchange", "notification"])
        call("GET", "/control/export", query="payment=" + first)
        self.assertEqual({row["type"] for row in call("GET", "/control/export")}, {"payment", "exchange"})
        call("GET", "/control/export", 400, query="kind=page")
        rule = call("POST", "/control/decisions", 201, {"decision": "pay", "order": "B-*", "times": 2, "skip": 1})
        call("GET", "/control/decisions", query="account=demo")
        call("DELETE", "/control/decisions/{id}", id=rule["id"])
        call("DELETE", "/control/decisions")
        scenario = {"account": "demo", "steps": [{"kind": "drop", "times": "always"}, {"decision": "decline"}]}
        call("POST", "/control/scenario", 201, scenario)
        call("POST", "/control/scenario", 400, {"steps": [{}]})
        call("GET", "/control/scenario")
        call("POST", "/control/snapshots/{name}", 201, name="one")
        call("POST", "/control/snapshots/{name}", 200, name="one")
        call("GET", "/control/snapshots")
        call("POST", "/control/snapshots/{name}/restore", name="one")
        call("DELETE", "/control/snapshots/{name}", name="one")
        call("DELETE", "/control/snapshots/{name}", 404, name="one")
        call("POST", "/control/clock", 200, {"frozen": True, "account": "demo"})
        call("POST", "/control/clock", 200, {"step": 60})
        call("POST", "/control/clock", 400, {})
        call("GET", "/control")
        call("POST", "/control/keys/rotate", 201)
        call("GET", "/control/keys")
        call("POST", "/control/accounts", 201, {"user": "new", "password": "p"})
        call("POST", "/control/accounts", 200, {"user": "new", "password": "q"})
        call("DELETE", "/control/exchanges", query="account=demo")
        call("POST", "/control/reset", 200, {"account": "demo"})
        described = {(method.upper(), path) for path, item in self.api["paths"].items() for method in item}
        self.assertEqual(self.seen, described)

    def test_every_method_of_an_address_is_described(self):
        for path, item in self.api["paths"].items():
            with self.subTest(path):
                status, _, headers = self.send("PATCH", re.sub("{(id|number)}", "1", path).replace("{name}", "n"))
                self.assertEqual(status, 405)
                # An address with a name can also be that of one whose name is "1".
                self.assertLessEqual(set(item), set(headers["Allow"].lower().split(", ")))

    def test_the_page_and_the_description_have_the_same_addresses(self):
        page = (ROOT / "docs" / "sandbox.md").read_text().split("## Control API")[1].split("### Lists")[0]
        rows = "".join(line.split("|")[1] for line in page.splitlines() if line.startswith("| `"))
        on_page = {(method, re.sub("/(ID|N|NAME)(?=/|$)", "/{}", path))
                   for method, path in re.findall(r"`(GET|POST|DELETE) ([^`?]*)", rows)}
        described = {(method.upper(), re.sub("{.*?}", "{}", path))
                     for path, item in self.api["paths"].items() for method in item}
        self.assertEqual(on_page, described)


if __name__ == "__main__":
    unittest.main()
