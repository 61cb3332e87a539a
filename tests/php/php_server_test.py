"""The PHP package in php-fpm: with FFI for all scripts, with library and classes preloaded, and where FFI is forbidden.

CMakeLists.txt sets environment variables with the paths of the tree, of the products and of php-fpm.
"""

import os
import pathlib
import re
import socket
import struct
import subprocess
import unittest

from sandboxcase import TIMEOUT_SECONDS, Program, SandboxCase, parameters

ROOT = pathlib.Path(os.environ["KVX_ROOT"])
LIBRARY = pathlib.Path(os.environ["TALLOWIN_LIBRARY"])
PACKAGE = ROOT / "bindings" / "php"

PAGE = """<?php
spl_autoload_register(fn ($class) => require '%s/src/' . substr(strrchr($class, '\\\\'), 1) . '.php');
header('Content-Type: text/plain');
try {
    $order = (new Kelvane\\Tallowin\\MessageFactory('%s'))->createPayInit();
    $order->setAttribute('AMOUNT', '19.90');
    $order->setAttribute('CURRENCY', 'EUR');
    echo $order->getUrl();
} catch (Kelvane\\Tallowin\\TallowinException $failure) {
    echo $failure::class, ': ', $failure->getMessage();
}
"""

POOL = """[global]
error_log = {place}/log
daemonize = no
[www]
listen = {place}/socket
{user}
pm = static
pm.max_children = 2
pm.max_requests = 1000
catch_workers_output = yes
"""


class FastCgi:
    """One request of a web server to php-fpm."""

    BEGIN, PARAMS, STDIN, STDOUT, END = 1, 4, 5, 6, 3

    def __init__(self, path):
        self.connection = socket.socket(socket.AF_UNIX)
        self.connection.settimeout(TIMEOUT_SECONDS)
        self.connection.connect(str(path))

    def record(self, kind, content=b""):
        return struct.pack(">BBHHBx", 1, kind, 1, len(content), 0) + content

    def get(self, script):
        """Header and body of the response."""
        names = {"SCRIPT_FILENAME": str(script), "REQUEST_METHOD": "GET", "SERVER_PROTOCOL": "HTTP/1.1", "QUERY_STRING": ""}
        pairs = b"".join(struct.pack(">II", len(name) | 1 << 31, len(value) | 1 << 31) + name.encode() + value.encode()
                         for name, value in names.items())
        with self.connection:
            self.connection.sendall(self.record(self.BEGIN, struct.pack(">HB5x", 1, 0)) + self.record(self.PARAMS, pairs) +
                                    self.record(self.PARAMS) + self.record(self.STDIN))
            stream = self.connection.makefile("rb")
            out = b""
            while True:
                _, kind, _, length, padding = struct.unpack(">BBHHBx", stream.read(8))
                content = stream.read(length + padding)[:length]
                if kind == self.STDOUT:
                    out += content
                if kind == self.END:
                    return out.decode().split("\r\n\r\n", 1)


class PhpServer(SandboxCase):
    def setUp(self):
        super().setUp()
        done = subprocess.run([os.environ["KVX_PHP"], "-d", "ffi.enable=true"], input=self.set_up_program(), text=True,
                              capture_output=True, timeout=TIMEOUT_SECONDS)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        self.page = self.directory / "page.php"
        self.page.write_text(PAGE % (PACKAGE, self.merchant))
        for path in (self.directory, *self.merchant.rglob("*"), self.merchant):
            path.chmod(0o777)  # the pool has a user of its own when the test is run by root

    def set_up_program(self):
        return (PAGE % (PACKAGE, self.merchant)).split("try {")[0].replace("header('Content-Type: text/plain');", "") + (
            f"(new Kelvane\\Tallowin\\ConfigurationSetup('{self.merchant}'))->reconfigure('{self.service}', 'demo', 'demo');")

    def serve(self, *settings):
        """Starts php-fpm with these settings. The library is found by its name."""
        (self.directory / "pool.conf").write_text(POOL.format(
            place=self.directory, user="user = nobody\ngroup = nogroup\nlisten.mode = 0666" if os.geteuid() == 0 else ""))
        environment = {name: value for name, value in os.environ.items() if name != "TALLOWIN_LIBRARY"}
        arguments = [option for setting in ("zend_extension=opcache", "opcache.enable=1", *settings) for option in ("-d", setting)]
        server = Program(os.environ["KVX_PHP_FPM"], "-n", "-d", "extension=ffi", *arguments, "--fpm-config",
                         self.directory / "pool.conf", env={**environment, "LD_LIBRARY_PATH": str(LIBRARY.parent)})
        self.addCleanup(self.stop, server)
        log = ""
        while "ready to handle connections" not in log:
            log = (self.directory / "log").read_text() if (self.directory / "log").exists() else ""
            self.assertIsNone(server.process.poll(), log)

    def stop(self, server):
        status, out, errors = server.stop()
        self.assertEqual((status, out), (0, ""), errors)

    def get(self):
        return FastCgi(self.directory / "socket").get(self.page)[1]

    def check_payments(self):
        for _ in range(5):
            url = self.get()
            self.assertTrue(url.startswith(self.addresses["pay"]), url)
            self.assertEqual(len(parameters(self.browser.decide(url, "pay"))), 2)
        self.assertEqual(self.states(), ["authorised"] * 5)

    def test_serves_payments_with_ffi_for_all(self):
        self.serve("ffi.enable=true")
        self.check_payments()

    def test_serves_payments_with_a_preloaded_library(self):
        self.serve("ffi.enable=true", f"ffi.preload={PACKAGE / 'tallowin.ffi'}")
        self.check_payments()

    def test_serves_payments_with_a_preloaded_package(self):
        """The settings are those of docs/php.md, with the package and the user of this test."""
        page = (ROOT / "docs" / "php.md").read_text()
        settings = re.search(r"^```ini\n(.*?)^```$", page, re.MULTILINE | re.DOTALL).group(1)
        self.assertEqual(settings.count("/srv/shop/vendor/kelvane/tallowin/"), 2)
        settings = settings.replace("/srv/shop/vendor/kelvane/tallowin", str(PACKAGE))
        settings = settings.replace("www-data", "nobody" if os.geteuid() == 0 else "")
        self.serve(*settings.replace(" = ", "=").splitlines())
        self.check_payments()

    def test_names_the_cure_where_ffi_is_forbidden(self):
        self.serve()
        answer = self.get()
        self.assertIn("Kelvane\\Tallowin\\LoadException: libtallowin.so.1 cannot be loaded: FFI API is restricted", answer)
        self.assertIn("On a web server, name tallowin.ffi in ffi.preload", answer)


if __name__ == "__main__":
    unittest.main()
