"""tallowin doctor: every finding, produced for real, with its cure; and what --repair does about it.

Each class has one sandbox and one account; each test examines a copy of the account. CMakeLists.txt names the program in
KVX_TOOL and the sandbox in KVX_SANDBOX.
"""

import contextlib
import datetime
import fcntl
import http.server
import json
import os
import pathlib
import shutil
import socket
import ssl
import subprocess
import tempfile
import threading
import unittest

from sandboxcase import Program
from toolcase import TOOL, environment

TIMEOUT_SECONDS = 60


def run(*arguments, given=""):
    """The program with these arguments and this input: exit status, standard output, standard error."""
    done = subprocess.run([TOOL, *map(os.fspath, arguments)], input=given, text=True, env=environment(), capture_output=True,
                          timeout=TIMEOUT_SECONDS, check=False)
    return done.returncode, done.stdout, done.stderr


def unused_port():
    """A port at which nothing listens."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


class DoctorCase(unittest.TestCase):
    """One sandbox and one account for the class; each test examines a copy of the account."""

    options = ()

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        sandbox = Program(os.environ["KVX_SANDBOX"], "--data", cls.folder / "data", "--json", *cls.options)
        cls.addClassCleanup(sandbox.stop)
        cls.addresses = json.loads(sandbox.line())
        cls.template = cls.folder / "template"
        cls.set_up(cls.template, cls.addresses["auto"])

    @classmethod
    def set_up(cls, directory, address):
        status, _, errors = run("setup", "--dir", directory, address, "--user", "demo", given="demo\n")
        if status != 0:
            raise AssertionError(errors)

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.directory = pathlib.Path(folder.name) / "account"
        shutil.copytree(self.template, self.directory)

    def path(self, name):
        return self.directory / name

    def current(self):
        return self.path("keys/current").read_text()

    def edit(self, name, old, new):
        """Replaces a text in a file; the file must hold it."""
        text = self.path(name).read_text()
        self.assertIn(old, text)
        self.path(name).write_text(text.replace(old, new))

    def set(self, **settings):
        attributes = "".join(f' {name}="{value}"' for name, value in settings.items())
        self.path("settings.xml").write_text(f"<KVX{attributes}/>")

    def examine(self, *options):
        """The report as JSON. Its exit status must fit."""
        status, out, errors = run("doctor", "--dir", self.directory, "--json", *options)
        self.assertEqual(errors, "")
        report = json.loads(out)
        findings = [check for check in report["checks"] if check["health"] in ("warning", "problem")]
        self.assertEqual(status, 1 if findings else 0, out)
        self.assertEqual(report["ok"], not findings)
        self.assertEqual(report["problems"] + report["warningCount"], len(findings))
        for finding in findings:
            self.assertTrue(finding["cure"], finding)
        return report

    def findings(self, *options):
        """The findings as (check, health, text)."""
        return [(check["name"], check["health"], check["text"]) for check in self.examine(*options)["checks"]
                if check["health"] in ("warning", "problem")]

    def assert_finding(self, check, health, text, *options):
        """Exactly one check has findings, one of which has this text."""
        findings = self.findings(*options)
        self.assertEqual({finding[0] for finding in findings}, {check}, findings)
        self.assertTrue(any(finding[1] == health and text in finding[2] for finding in findings), findings)

    def assert_repaired(self, check, done):
        """The finding goes with --repair, is reported as mended, and does not come back."""
        report = self.examine("--offline", "--repair")
        repairs = [row for row in report["checks"] if row["health"] == "repaired"]
        self.assertEqual(report["repairs"], len(repairs))
        self.assertTrue(any(row["name"] == check and done in row["done"] for row in repairs), repairs)
        self.assertEqual(self.findings("--offline"), [])


class DoctorReport(DoctorCase):
    """The report itself."""

    def test_finds_nothing_in_a_sound_account(self):
        report = self.examine()
        self.assertEqual(report["directory"], str(self.directory))
        self.assertEqual({row["health"] for row in report["checks"]}, {"good", "skipped"})
        self.assertEqual([row["name"] for row in report["checks"]],
                         ["directory", "owner", "modes", "leftovers", "files", "settings", "keys", "server key", "old keys",
                          "signing", "addresses", "connection", "clock", "proxy"])

    def test_people_get_a_line_for_each_check_and_a_cure_below(self):
        os.chmod(self.path("keys/private") / self.current(), 0o604)
        status, out, _ = run("doctor", "--dir", self.directory)
        self.assertEqual(status, 1)
        lines = out.splitlines()
        at = next(index for index, line in enumerate(lines) if line.startswith("problem  modes"))
        self.assertIn("every user of this machine can use the private key", lines[at])
        self.assertIn("cure: chmod 0600", lines[at + 1])
        self.assertEqual(lines[-1], "1 problem, 0 warnings, 0 repairs")
        status, out, _ = run("doctor", "--dir", self.directory, "--repair")
        self.assertEqual(status, 0)
        self.assertIn("done: mode 0604 changed to 0600", out)
        self.assertEqual(out.splitlines()[-1], "nothing found, after 1 repair")

    def test_connects_to_nothing_when_offline(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            self.edit("config.xml", self.addresses["pay"], f"http://127.0.0.1:{server.getsockname()[1]}/pay")
            server.settimeout(0)
            rows = {row["name"]: row for row in self.examine("--offline")["checks"]}
            self.assertEqual(rows["connection"]["health"], "skipped")
            with self.assertRaises(BlockingIOError):
                server.accept()

    def test_sends_no_credentials_and_no_message(self):
        before = self.exchanges()
        self.examine()
        self.assertEqual(self.exchanges(), before)

    def exchanges(self):
        with socket.create_connection(("127.0.0.1", self.addresses["controlPort"]), TIMEOUT_SECONDS) as connection:
            connection.sendall(b"GET /control HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n")
            body = b"".join(iter(lambda: connection.recv(65536), b"")).split(b"\r\n\r\n", 1)[1]
        return json.loads(body)["counts"]

    def test_repairs_nothing_while_a_set_up_runs(self):
        (self.directory / ".tallowin-1-1.tmp").write_text("half")
        descriptor = os.open(self.directory, os.O_RDONLY)
        self.addCleanup(os.close, descriptor)
        fcntl.flock(descriptor, fcntl.LOCK_SH)
        status, out, errors = run("doctor", "--dir", self.directory, "--repair")
        self.assertEqual((status, out), (1, ""))
        self.assertTrue(errors)
        self.assert_finding("leftovers", "warning", ".tallowin-1-1.tmp")

    def test_refuses_what_it_cannot_use(self):
        self.assertEqual(run("doctor", "--dir", self.directory, "--timeout", "0")[0], 2)
        self.assertEqual(run("doctor", "--dir", "")[0], 2)
        self.assertEqual(run("doctor", "--dir", self.directory, "--user", "nobody-by-this-name")[0], 2)


class DoctorFiles(DoctorCase):
    """Directory, owner, modes, temporary files, documents, settings."""

    def test_directory(self):
        shutil.rmtree(self.directory)
        self.assert_finding("directory", "problem", "does not exist")
        self.directory.write_text("a file")
        self.assert_finding("directory", "problem", "is no directory")

    @unittest.skipUnless(os.geteuid() == 0, "needs root, which can give files away")
    def test_owner(self):
        self.assert_finding("owner", "problem", "user nobody cannot", "--user", "nobody", "--offline")
        os.chown(self.path("config.xml"), 65534, 65534)
        self.assert_finding("owner", "warning", "config.xml belongs to nobody, the directory to root", "--offline")

    def test_modes_that_let_others_in(self):
        key = self.path("keys/private") / self.current()
        for mode, repaired in ((0o644, 0o640), (0o607, 0o600), (0o604, 0o600)):
            with self.subTest(mode=oct(mode)):
                os.chmod(key, mode)
                self.assert_finding("modes", "problem", "every user of this machine can use the private key", "--offline")
                # The group keeps its access, which a shop may need, and a warning stays.
                left = self.findings("--offline", "--repair")
                self.assertEqual([finding[1] for finding in left], ["warning"] if repaired == 0o640 else [])
                self.assertEqual(key.stat().st_mode & 0o7777, repaired)
                os.chmod(key, 0o600)
        for name in ("config.xml", "settings.xml", "keys/current", "keys/public", "."):
            with self.subTest(name=name):
                os.chmod(self.path(name), self.path(name).stat().st_mode | 0o002)
                self.assert_finding("modes", "problem", "every user of this machine can change", "--offline")
                self.assert_repaired("modes", "changed to")

    def test_modes_that_let_the_group_in(self):
        os.chmod(self.path("keys/private") / self.current(), 0o640)
        self.assert_finding("modes", "warning", "the group of the private key", "--offline")
        self.set(PROFILE="strict", KEYMODE="0640")
        self.assertEqual(self.findings("--offline"), [])

    def test_leftovers(self):
        left = self.path("keys/private/.tallowin-123-4.tmp")
        for name in (".tallowin-1-0.tmp", "keys/.tallowin-1-1.tmp", "keys/public/.tallowin-1-2.tmp"):
            self.path(name).write_text("half")
            self.assert_finding("leftovers", "warning", name, "--offline")
            self.assert_repaired("leftovers", "removed")
            self.assertFalse(self.path(name).exists())
        left.write_text("being written")
        with open(left, encoding="ascii") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.assertEqual(self.findings("--offline", "--repair"), [])
            self.assertTrue(left.exists())
        self.path("keys/.other").write_text("not the library's")
        self.assert_repaired("leftovers", "removed")
        self.assertTrue(self.path("keys/.other").exists())

    def test_damaged_documents(self):
        for content, text in (("", "is empty"), ("\0\0\0", "is empty"), ("hello", "is no XML"),
                              ("<KVX A=\"b\"", "is cut off"), ("<KVX A=\"b", "is cut off"),
                              ("<OTHER A=\"b\"/>", "has the root element OTHER instead of KVX"),
                              ("<?xml version=\"1.0\"?><KVX/>", "has an XML declaration"),
                              ("<KVX A=\"b\">", "is damaged")):
            for name in ("config.xml", "default.xml", "settings.xml"):
                with self.subTest(name=name, content=content):
                    kept = self.path(name).read_bytes()
                    self.path(name).write_text(content)
                    found = [finding for finding in self.findings() if finding[0] == "files"]
                    self.assertEqual([(health, f"{name} {text}" in line) for _, health, line in found],
                                     [("problem", True)], found)
                    self.path(name).write_bytes(kept)

    def test_a_folder_in_the_place_of_a_document(self):
        self.path("config.xml").unlink()
        self.path("config.xml").mkdir()
        self.assertIn(("files", "problem", "config.xml is no file"), self.findings())

    def test_missing_documents_and_values(self):
        self.path("settings.xml").unlink()
        self.assertEqual(self.findings("--offline"), [])
        self.edit("config.xml", "CAPTUREURL=", "OTHER=")
        self.assert_finding("files", "problem", "config.xml has no CAPTUREURL", "--offline")
        self.path("config.xml").unlink()
        self.assertIn(("files", "problem", "config.xml is missing"), self.findings())

    def test_settings(self):
        for name, value, text in (("IOTIMEOUT", "ten", "is no number and counts as absent"),
                                  ("TLSVERIFY", "yes", "is neither 0 nor 1 and counts as on"),
                                  ("SENDHOST", "yes", "is neither 0 nor 1 and counts as absent"),
                                  ("TLSMIN", "2", "is no version of TLS and counts as 1.2"),
                                  ("KEYMODE", "0777", "is no mode for a key and counts as 0600"),
                                  ("TLSCAFILE", "/nowhere.pem", "names no file that can be read")):
            with self.subTest(name=name):
                self.set(PROFILE="strict", **{name: value})
                self.assert_finding("settings", "problem", text, "--offline")
        self.set(PROFILE="strict", KEYPIN="123")
        self.assertIn("settings", {finding[0] for finding in self.findings("--offline")})


class DoctorKeys(DoctorCase):
    """Key pairs, the current key, the server's key, keys of earlier set-ups."""

    def private_key(self):
        return self.path("keys/private") / self.current()

    def public_key(self):
        return self.path("keys/public") / self.current()

    def add_second_pair(self):
        """A pair of another set-up of the account, without making it the current one. Returns its id."""
        other = pathlib.Path(tempfile.mkdtemp(dir=self.folder)) / "account"
        self.set_up(other, self.addresses["auto"])
        key = (other / "keys/current").read_text()
        for half in ("private", "public"):
            shutil.copy(other / "keys" / half / key, self.path("keys") / half / key)
        return key

    def test_damaged_private_key(self):
        text = self.private_key().read_text()
        for content, reason in (("", "is empty"), (text[:100], "is damaged or cut off"), ("-----BEGIN", "has other characters")):
            with self.subTest(reason=reason):
                self.private_key().write_text(content)
                self.assert_finding("keys", "problem", reason, "--offline")
                self.assertIn("keys", {finding[0] for finding in self.findings("--offline", "--repair")})

    def test_public_key_is_made_again(self):
        text = self.public_key().read_text()
        for content in (None, "", text[:50], "zz"):
            with self.subTest(content=content):
                self.public_key().unlink()
                if content is not None:
                    self.public_key().write_text(content)
                self.assert_finding("keys", "problem", "keys/public/" + self.current(), "--offline")
                self.assert_repaired("keys", "made from the private key")
                self.assertEqual(self.public_key().read_text(), text)

    def test_halves_of_two_pairs(self):
        other = self.add_second_pair()
        shutil.copy(self.path("keys/public") / other, self.public_key())
        self.path("keys/private").joinpath(other).unlink()
        self.assert_finding("keys", "problem", "are not halves of one pair", "--offline")

    def test_current_names_no_key(self):
        key = self.current()
        for content, text in (("", "keys/current is empty"), ("0-1001-gone", "names the key 0-1001-gone, which is missing"),
                              ("../../etc/passwd", "holds no key id")):
            with self.subTest(content=content):
                self.path("keys/current").write_text(content)
                findings = self.findings("--offline")
                self.assertTrue(any(row[0] == "keys" and text in row[2] for row in findings), findings)
                self.assert_repaired("keys", "names the only complete pair, " + key)
                self.assertEqual(self.current(), key)
        self.path("keys/current").unlink()
        self.assert_repaired("keys", "names the only complete pair, " + key)
        self.assertEqual(run("pay", "--dir", self.directory, "--amount", "1.00", "--currency", "EUR")[0], 0)

    def test_white_space_around_the_current_key(self):
        self.add_second_pair()
        key = self.current()
        for content in (key + "\n", " " + key + "\r\n"):
            self.path("keys/current").write_text(content)
            findings = self.findings("--offline")
            self.assertIn(("keys", "problem", "keys/current has white space or a line end around the key id"), findings)
            self.examine("--offline", "--repair")
            self.assertEqual(self.current(), key)

    @unittest.skipUnless(os.geteuid() == 0, "needs root, which can change files of others")
    def test_repairs_by_root_follow_no_links(self):
        outside = self.directory.parent / "system"
        self.path("keys/public").rename(outside)
        self.path("keys/public").symlink_to(outside)
        (outside / self.current()).write_text("a file of the system")
        (outside / "other").write_text("")
        (outside / "other").chmod(0o666)
        report = self.examine("--offline", "--repair")
        self.assertEqual(report["repairs"], 0)
        self.assertIn("keys/public is a link", report["checks"][2]["text"])
        self.assertEqual((outside / self.current()).read_text(), "a file of the system")
        self.assertEqual((outside / "other").stat().st_mode & 0o777, 0o666)

    @unittest.skipUnless(os.geteuid() == 0, "needs root, which can give files away")
    def test_repairs_by_root_leave_files_to_the_owner(self):
        for path in (self.directory, *self.directory.rglob("*")):
            os.chown(path, 65534, 65534)
        self.public_key().unlink()
        self.path("keys/current").chmod(0o640)
        self.path("keys/current").write_text(self.current() + "\n")
        self.assert_repaired("keys", "made from the private key")
        for path in (self.path("keys/current"), self.public_key()):
            self.assertEqual((path.stat().st_uid, path.stat().st_gid), (65534, 65534))
        self.assertEqual(self.path("keys/current").stat().st_mode & 0o7777, 0o640)

    def test_current_is_not_guessed_among_two(self):
        self.add_second_pair()
        self.path("keys/current").write_text("0-1001-gone")
        report = self.examine("--offline", "--repair")
        self.assertIn("2 pairs are complete", " ".join(row.get("cure", "") for row in report["checks"]))
        self.assertEqual(self.current(), "0-1001-gone")

    def test_account_of_another_customer(self):
        self.edit("config.xml", "CUSTOMERID=\"1001\"", "CUSTOMERID=\"7\"")
        self.assert_finding("keys", "warning", "does not belong to the account 7", "--offline")

    def test_server_key(self):
        server = self.path("keys/public") / self.addresses["serverKeyId"]
        text = server.read_text()
        for content, reason in ((None, "is missing"), ("", "is empty"), (text[:40], "is damaged or cut off")):
            with self.subTest(reason=reason):
                server.unlink(missing_ok=True)
                if content is not None:
                    server.write_text(content)
                self.assert_finding("server key", "problem", reason, "--offline")
        server.write_text(text)
        self.edit("config.xml", "VTKEYID=", "OTHER=")
        self.assert_finding("server key", "problem", "names no key of the server", "--offline")

    def test_server_key_of_another_size_or_pin(self):
        self.set(PROFILE="strict", MINKEYBITS="1024")
        self.assert_finding("server key", "problem", "has 512 bits, fewer than MINKEYBITS", "--offline")
        self.set(PROFILE="strict", KEYPIN="0" * 64)
        self.assert_finding("server key", "problem", "is not the one that KEYPIN names", "--offline")
        big = subprocess.run("openssl genrsa 2048 | openssl rsa -RSAPublicKey_out -outform DER", shell=True, check=True,
                             capture_output=True).stdout
        self.set(PROFILE="strict")
        self.path("keys/public").joinpath(self.addresses["serverKeyId"]).write_text(big.hex())
        self.assert_finding("server key", "problem", "has 2048 bits; signatures can be verified up to 1024", "--offline")

    def test_private_half_of_the_server_key(self):
        self.path("keys/private").joinpath(self.addresses["serverKeyId"]).write_text("00")
        self.assertTrue(any("the private half of the server's key" in row[2] for row in self.findings("--offline")))

    def test_old_private_keys(self):
        self.add_second_pair()
        self.assert_finding("old keys", "warning", "1 private key of earlier set-ups", "--offline")


class DoctorService(DoctorCase):
    """Addresses, connections, proxies."""

    options = ("--tls", "--proxy")

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.plain_port, cls.tls_port = cls.addresses["port"], cls.addresses["tlsPort"]

    def send_to(self, address):
        """Makes `address` the only one of the account."""
        self.path("config.xml").write_text(
            f'<KVX MSGTYPE="SetupResponse" VTURL="{address}" CAPTUREURL="{address}" CUSTOMERID="1001" '
            f'VTKEYID="{self.addresses["serverKeyId"]}"/>')

    def test_addresses(self):
        for address, text in (("ftp://pay.example/pay", "neither http:// nor https://"),
                              ("http://127.0.0.1", "needs a \"/\" behind the host"),
                              ("http://127.0.0.1:99999/pay", "the port must be a number"),
                              ("http://127.0.0.1/pay?shop=1", "has a query")):
            with self.subTest(address=address):
                self.send_to(address)
                self.assert_finding("addresses", "problem", text)
        self.send_to("http://pay.invalid/pay")
        self.assertIn(("addresses", "warning", "VTURL is sent in clear text: http://pay.invalid/pay"), self.findings())

    def test_nothing_listens(self):
        port = unused_port()
        self.send_to(f"http://127.0.0.1:{port}/pay")
        self.assert_finding("connection", "problem", f"cannot connect to 127.0.0.1:{port}: Connection refused")

    def test_unknown_name(self):
        self.send_to("https://pay.invalid/pay")
        self.assert_finding("connection", "problem", "the host name pay.invalid is not found")

    def test_a_server_that_hangs(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            self.send_to(f"http://127.0.0.1:{server.getsockname()[1]}/pay")
            self.assert_finding("connection", "problem", "no answer within 1 seconds", "--timeout", "1")

    def test_a_server_that_sends_a_byte_now_and_then(self):
        ended = threading.Event()

        def answer(server):
            with server.accept()[0] as connection, contextlib.suppress(OSError):
                while not ended.wait(0.1):
                    connection.sendall(b"H")

        with socket.create_server(("127.0.0.1", 0)) as server:
            thread = threading.Thread(target=answer, args=(server,))
            thread.start()
            self.addCleanup(thread.join)
            self.addCleanup(ended.set)
            self.send_to(f"http://127.0.0.1:{server.getsockname()[1]}/pay")
            self.assert_finding("connection", "problem", "no answer within 1 seconds", "--timeout", "1")

    def test_another_protocol(self):
        def answer(server):
            with server.accept()[0] as connection:
                connection.recv(65536)
                connection.sendall(b"220 mail.example ESMTP\r\n")

        with socket.create_server(("127.0.0.1", 0)) as server:
            thread = threading.Thread(target=answer, args=(server,))
            thread.start()
            self.send_to(f"http://127.0.0.1:{server.getsockname()[1]}/pay")
            self.assert_finding("connection", "problem", "does not answer in HTTP")
            thread.join(TIMEOUT_SECONDS)

    def test_wrong_scheme(self):
        self.send_to(f"http://127.0.0.1:{self.tls_port}/pay")
        findings = self.findings()
        self.assertTrue(findings and findings[0][0] == "connection", findings)
        self.send_to(f"https://127.0.0.1:{self.plain_port}/pay")
        self.assert_finding("tls", "problem", "the TLS handshake fails")
        self.assertIn("does not speak TLS", json.dumps(self.examine()))

    def test_proxy_lets_through(self):
        proxy = {"USEPROXY": "1", "PROXYHOST": "127.0.0.1", "PROXYPORT": self.addresses["proxyPort"]}
        self.set(PROFILE="strict", TLSCAFILE=self.addresses["ca"], **proxy)
        for address in (self.addresses["pay"], f"https://127.0.0.1:{self.tls_port}/pay"):
            with self.subTest(address=address):
                self.send_to(address)
                report = self.examine()
                rows = {row["name"]: row["text"] for row in report["checks"]}
                self.assertEqual(report["problems"], 0, report)
                self.assertIn("answers through the proxy", rows["connection"])
                self.assertIn("lets the service through", rows["proxy"])

    def test_proxy_is_away(self):
        port = unused_port()
        self.set(PROFILE="strict", USEPROXY="1", PROXYHOST="127.0.0.1", PROXYPORT=port)
        self.assert_finding("proxy", "problem", f"cannot connect to 127.0.0.1:{port}: Connection refused")
        self.set(PROFILE="strict", USEPROXY="1", PROXYHOST="proxy.invalid")
        self.assert_finding("proxy", "problem", "the host name proxy.invalid is not found")

    def test_proxy_does_not_reach_the_service(self):
        port = unused_port()
        self.set(PROFILE="strict", USEPROXY="1", PROXYHOST="127.0.0.1", PROXYPORT=self.addresses["proxyPort"])
        for scheme in ("http", "https"):
            with self.subTest(scheme=scheme):
                self.send_to(f"{scheme}://127.0.0.1:{port}/pay")
                self.assert_finding("proxy", "problem", f"127.0.0.1:{port}")

    def test_incomplete_proxy(self):
        for settings, health, text in (({"USEPROXY": "1"}, "problem", "no PROXYHOST"),
                                       ({"PROXYHOST": "127.0.0.1"}, "warning", "that is not used"),
                                       ({"USEPROXY": "yes", "PROXYHOST": "127.0.0.1"}, "problem", "is not 1"),
                                       ({"USEPROXY": "1", "PROXYHOST": "a b"}, "problem", "cannot be used")):
            with self.subTest(settings=settings):
                self.set(PROFILE="strict", **settings)
                self.assert_finding("proxy", health, text)

    def test_proxy_wants_credentials_or_refuses(self):
        program = shutil.which("tinyproxy")
        if program is None:
            self.skipTest("tinyproxy is not installed")
        for rule, text in (("BasicAuth user secret", "407"), ("ConnectPort 1", "403")):
            with self.subTest(rule=rule), self.tinyproxy(program, rule) as port:
                self.set(PROFILE="strict", TLSCAFILE=self.addresses["ca"], USEPROXY="1", PROXYHOST="127.0.0.1", PROXYPORT=port)
                self.send_to(f"https://127.0.0.1:{self.tls_port}/pay")
                self.assert_finding("proxy", "problem", text)

    @contextlib.contextmanager
    def tinyproxy(self, program, rule):
        port = unused_port()
        configuration = self.directory.parent / "tinyproxy.conf"
        configuration.write_text(f"Port {port}\nListen 127.0.0.1\nTimeout 30\n{rule}\n")
        process = subprocess.Popen([program, "-d", "-c", configuration], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            for _ in range(100000):
                with contextlib.suppress(ConnectionRefusedError):
                    socket.create_connection(("127.0.0.1", port), TIMEOUT_SECONDS).close()
                    break
            yield port
        finally:
            process.terminate()
            process.wait(TIMEOUT_SECONDS)


class DoctorTls(DoctorCase):
    """Certificates and versions of TLS, with servers that have what is looked for."""

    def authority(self, name):
        """A new authority. Returns its certificate and key."""
        key, certificate = self.folder / f"{name}.key", self.folder / f"{name}.pem"
        self.openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj", f"/CN={name}", "-keyout", key,
                     "-out", certificate)
        return certificate, key

    def certificate(self, name, alternative, days, authority):
        """A certificate for `alternative`, valid for `days`. Returns the file with it and its key."""
        key, request, out = (self.folder / f"{name}.{suffix}" for suffix in ("key", "csr", "pem"))
        extensions = self.folder / f"{name}.ext"
        extensions.write_text(f"subjectAltName={alternative}\n")
        self.openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={name}", "-keyout", key, "-out", request)
        self.openssl("x509", "-req", "-in", request, "-CA", authority[0], "-CAkey", authority[1], "-CAcreateserial", "-days",
                     str(days), "-extfile", extensions, "-out", out)
        out.write_text(out.read_text() + key.read_text())
        return out

    @staticmethod
    def openssl(*arguments):
        subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True, timeout=TIMEOUT_SECONDS)

    @contextlib.contextmanager
    def server(self, certificate, **limits):
        """A server of HTTP over TLS; the account's only address leads there."""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate)
        for name, value in limits.items():
            setattr(context, name, value)
        if limits:
            context.set_ciphers("ALL:@SECLEVEL=0")
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), QuietHandler)
        server.socket = context.wrap_socket(server.socket, server_side=True)
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        address = f"https://127.0.0.1:{server.server_port}/pay"
        self.path("config.xml").write_text(
            f'<KVX MSGTYPE="SetupResponse" VTURL="{address}" CAPTUREURL="{address}" CUSTOMERID="1001" '
            f'VTKEYID="{self.addresses["serverKeyId"]}"/>')
        try:
            yield server.server_port
        finally:
            server.shutdown()
            thread.join(TIMEOUT_SECONDS)
            server.server_close()

    def test_certificates(self):
        good = self.authority("authority")
        other = self.authority("stranger")
        address = "IP:127.0.0.1"
        for name, alternative, days, authority, text in (
                ("good", address, 90, good, None),
                ("expired", address, -1, good, "has expired, on "),
                ("soon", address, 5, good, "expires in "),
                ("named", "DNS:pay.example", 90, good, "is not for this address: DNS:pay.example"),
                ("unknown", address, 90, other, "comes from an authority that is not known")):
            with self.subTest(name=name):
                certificate = self.certificate(name, alternative, days, authority)
                with self.server(certificate):
                    self.set(PROFILE="strict", TLSCAFILE=good[0])
                    if text is None:
                        self.assertEqual(self.findings(), [])
                    else:
                        self.assert_finding("tls", "warning" if name == "soon" else "problem", text)
                    self.set(TLSVERIFY="0")
                    self.assert_finding("tls", "warning", "is not verified")

    def test_certificate_signed_by_itself(self):
        certificate, key = self.authority("self")
        certificate.write_text(certificate.read_text() + key.read_text())
        with self.server(certificate):
            self.set(PROFILE="strict")
            self.assert_finding("tls", "problem", "is signed by itself alone")

    def test_old_versions(self):
        authority = self.authority("old")
        certificate = self.certificate("oldserver", "IP:127.0.0.1", 90, authority)
        with self.server(certificate, minimum_version=ssl.TLSVersion.TLSv1, maximum_version=ssl.TLSVersion.TLSv1_1):
            self.set(PROFILE="strict", TLSCAFILE=authority[0])
            self.assert_finding("tls", "problem", "speaks TLSv1.1, which settings.xml refuses")
            self.set(PROFILE="strict", TLSCAFILE=authority[0], TLSMIN="1.0")
            self.assert_finding("tls", "warning", "speaks TLSv1.1, which is broken")


class DoctorClock(DoctorCase):
    """The clock, against servers whose clocks differ."""

    @contextlib.contextmanager
    def server(self, date):
        class Handler(QuietHandler):
            def date_time_string(self, timestamp=None):
                return date

        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        address = f"http://127.0.0.1:{server.server_port}/pay"
        self.path("config.xml").write_text(
            f'<KVX MSGTYPE="SetupResponse" VTURL="{address}" CAPTUREURL="{address}" CUSTOMERID="1001" '
            f'VTKEYID="{self.addresses["serverKeyId"]}"/>')
        try:
            yield
        finally:
            server.shutdown()
            thread.join(TIMEOUT_SECONDS)
            server.server_close()

    def test_difference(self):
        now = datetime.datetime.now(datetime.timezone.utc)
        for minutes, text in ((-10, "minutes ahead of"), (20, "minutes behind"), (-600, "hours ahead of"),
                              (3 * 24 * 60, "days behind")):
            with self.subTest(minutes=minutes):
                date = now + datetime.timedelta(minutes=minutes)
                with self.server(date.strftime("%a, %d %b %Y %H:%M:%S GMT")):
                    self.assert_finding("clock", "problem", text)

    def test_no_difference(self):
        with self.server(datetime.datetime.now(datetime.timezone.utc).strftime("%a, %d %b %Y %H:%M:%S GMT")):
            rows = {row["name"]: row for row in self.examine()["checks"]}
            self.assertEqual(rows["clock"]["health"], "good")

    def test_unreadable_date(self):
        with self.server("yesterday"):
            rows = {row["name"]: row for row in self.examine()["checks"]}
            self.assertEqual(rows["clock"]["health"], "skipped")
            self.assertIn("cannot be read: yesterday", rows["clock"]["text"])


class QuietHandler(http.server.BaseHTTPRequestHandler):
    """Answers HEAD and writes no log."""

    def do_HEAD(self):  # noqa: N802 - the base class names it
        self.send_response(200)
        self.end_headers()

    def log_message(self, *_):
        pass


if __name__ == "__main__":
    unittest.main()
