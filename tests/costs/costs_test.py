"""What the main paths cost, counted: system calls, allocations, the library's own instructions.

Counts, unlike times, are the same on a busy machine. Each path runs a few times and then more often; what one further
time costs is the difference. Instructions are those in the library itself: what OpenSSL and the C library need depends on
the processor. Keys and tokens are new in each run, so the counts differ by a little. A rise beyond that fails.

`costs_test.py --write` prints the table instead.
"""

import http.server
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import unittest

PROGRAM = os.environ["TALLOWIN_MAINPATHS"]
LIBRARY = os.path.realpath(os.environ["TALLOWIN_LIBRARY"])
EXPECTED = pathlib.Path(__file__).parent / "expected.txt"
# Not those by which the heap grows, which belong to no single run, and not the clock's, which outside callgrind are none.
SYSTEM_CALL = r"^SYSCALL\[[\d,]+\]\( *\d+\) (?!sys_(?:brk|time|gettimeofday) )\w"
FEW, MORE = 4, 20
ROOM = {"system calls": lambda number: number + 1, "allocations": lambda number: number + 2,
        "instructions": lambda number: number * 1.03}
OWN_KEY = "0-4711-0123456789abcdef0123456789abcdef"
SERVER_KEY = "1-0-server"

CONFIGURATION = (
    '<KVX MSGTYPE="SetupResponse" VERSION="3" CUSTOMERID="4711" VTKEYID="1-0-server" '
    'VTURL="https://pay.example.test/vt/pay" CAPTUREURL="http://127.0.0.1:{port}/vt/capture" '
    'VTAUTOURL="https://pay.example.test/vt/auto"/>')
DEFAULTS = (
    '<KVX MSGTYPE="LoadDefaultsResponse" ISVALID="yes" ALLOWCOLLECT="no" DELIVERY="yes" LANGID="en" '
    'SUCCESSLINK="https://shop.example.test/paid?shop=1&amp;lang=en" NOTIFYADDRESS="shop@example.test" '
    'DEFAULTVALIDITY="14" BACKLINK="https://shop.example.test/cart" FAILLINK="https://shop.example.test/failed" '
    'PAYINITTTL="3600"/>')
CONFIRMATION = (
    '<KVX MSGTYPE="PayConfirm" KEYID="1-0-server" TOKEN="0123456789abcdef0123456789abcdef" '
    'ID="abcdef0123456789abcdef0123456789" AMOUNT="1250" CURRENCY="EUR" ORDERID="A &amp; B 4711" PROVIDERID="90" '
    'PROVIDERNAME="Example &quot;Cards&quot;" EXPIRATION="20301231 23:59:59" RESULT="0" PAYERNAME="Someone" '
    'PAYERCOUNTRY="CH"/>')


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, timeout=300, **options)


class Service(http.server.BaseHTTPRequestHandler):
    """Answers every capture the same."""

    def do_GET(self):
        body = b'<KVX MSGTYPE="PayConfirm"/>'
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


class Account:
    """A configuration directory after set-up, with keys of its own."""

    def __init__(self, place, port):
        self.directory = pathlib.Path(place) / "account"
        for folder in ("keys/private", "keys/public"):
            (self.directory / folder).mkdir(parents=True)
        self._write("config.xml", CONFIGURATION.format(port=port))
        self._write("default.xml", DEFAULTS)
        self._write("keys/current", OWN_KEY)
        self._make_pair(OWN_KEY)
        pem = self._make_pair(SERVER_KEY)
        self.confirmation = CONFIRMATION
        # What is signed are the characters as 16-bit units, low byte first.
        digest = run("openssl", "dgst", "-sha1", "-binary", input=CONFIRMATION.encode("utf-16-le")).stdout
        message = pathlib.Path(place) / "digest"
        message.write_bytes(digest)
        self.signature = run("openssl", "pkeyutl", "-sign", "-inkey", pem, "-in", message).stdout.hex()

    def _write(self, name, text):
        (self.directory / name).write_text(text)

    def _make_pair(self, name):
        pem = self.directory.parent / (name + ".pem")
        run("openssl", "genrsa", "-traditional", "-out", pem, "1024")
        for folder, options in (("private", ["-traditional"]), ("public", ["-RSAPublicKey_out"])):
            blob = run("openssl", "rsa", "-in", pem, "-outform", "DER", *options).stdout
            self._write(f"keys/{folder}/{name}", blob.hex())
        return pem


def counted(command, scratch):
    """What a whole run of `command` costs, by kind."""
    profile, log = scratch / "profile", scratch / "log"
    run("valgrind", "--tool=callgrind", f"--callgrind-out-file={profile}", "--dump-line=no", "--compress-strings=no",
        "--compress-pos=no", "--trace-syscalls=yes", f"--log-file={log}", *command)
    calls = len(re.findall(SYSTEM_CALL, log.read_text(errors="replace"), re.MULTILINE))
    instructions = allocations = 0
    in_library = is_call = False
    for line in profile.read_text(errors="replace").splitlines():
        if line.startswith("ob="):
            in_library = os.path.realpath(line[3:]) == LIBRARY
        elif line.startswith("cfn="):
            callee = line[4:]
        elif line.startswith("calls="):
            is_call = True
            if re.fullmatch(r"(malloc|calloc|realloc|memalign|posix_memalign)('\d+)?", callee):
                allocations += int(line[6:].split()[0])
        elif line[:1].isdigit():
            if in_library and not is_call:
                instructions += int(line.split()[1])
            is_call = False
    return {"system calls": calls, "allocations": allocations, "instructions": instructions}


def costs_of(path, account, scratch):
    """What one run of `path` costs, by kind."""
    def measured(count):
        extra = [account.confirmation, account.signature] if path == "confirmation" else []
        return counted([PROGRAM, path, str(account.directory), str(count), *extra], scratch)

    few, more = measured(FEW), measured(MORE)
    return {kind: round((more[kind] - few[kind]) / (MORE - FEW)) for kind in few}


def expected():
    """{(path, kind): number}"""
    table = {}
    for line in EXPECTED.read_text().splitlines():
        if line and not line.startswith("#"):
            path, kind, number = (part.strip() for part in line.split("|"))
            table[path, kind] = int(number)
    return table


def all_costs():
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Service)
    worker = threading.Thread(target=server.serve_forever)
    worker.start()
    try:
        with tempfile.TemporaryDirectory(prefix="tallowin-costs-") as place:
            account = Account(place, server.server_address[1])
            return {(path, kind): number for path in ("payment", "confirmation", "capture")
                    for kind, number in costs_of(path, account, pathlib.Path(place)).items()}
    finally:
        server.shutdown()
        worker.join()
        server.server_close()


class MainPaths(unittest.TestCase):
    def test_cost_no_more_than_before(self):
        measured, known = all_costs(), expected()
        self.assertEqual(sorted(measured), sorted(known))
        for (path, kind), number in measured.items():
            print(f"{path}: {number} {kind}, {known[path, kind]} expected")
            with self.subTest(path=path, kind=kind):
                self.assertGreater(number, 0)
                self.assertLessEqual(number, ROOM[kind](known[path, kind]))


if __name__ == "__main__":
    if sys.argv[1:] == ["--write"]:
        for (path, kind), number in all_costs().items():
            print(f"{path} | {kind} | {number}")
    else:
        unittest.main()
