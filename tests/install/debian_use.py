"""What the installed Debian packages are for, tried on the system they are installed on: debian_use.py TREE WORK.

Programs are built with pkg-config and pay against the packaged sandbox, from C with both libraries and from Java. The
order ledger is linked with, and loaded from Java. The unit's command starts. Every failure is printed with its step.
"""
import glob
import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys

tree, work = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
os.environ["KVX_ROOT"] = str(tree)
sys.path.insert(0, str(tree / "tests" / "support"))
from sandboxcase import Browser, Program, parameters  # noqa: E402

SHARED = "/usr/lib/*/libtallowin.so.1.*"
ORDERS = """
import java.nio.file.Files;
import java.nio.file.Path;
import kelvane.tallowin.ledger.Ledger;
public class Orders {
    public static void main(String[] arguments) throws Exception {
        try (Ledger orders = new Ledger()) {
            Files.lines(Path.of("/proc/self/maps")).filter(line -> line.contains("libtallowin"))
                .map(line -> line.substring(line.indexOf('/'))).distinct().forEach(System.out::println);
        }
    }
}
"""


def output(*command):
    said = subprocess.run([str(part) for part in command], capture_output=True, text=True)
    if said.returncode != 0:
        raise AssertionError(f"{command[0]} ends with {said.returncode}: {said.stdout}{said.stderr}")
    return said.stdout


def pkg_config(*arguments):
    return output("pkg-config", *arguments, "tallowin").split()


def compiled(name, libraries):
    program = work / name
    output("cc", "-std=c99", "-Wall", "-Werror", tree / "examples/c/quickstart.c", "-o", program, *pkg_config("--cflags"),
           *libraries)
    return program


def pay(step, service, *command):
    """Pays once with an example, and returns the libraries it had mapped."""
    example = Program(*command, work / f"merchant of {step}", service)
    url = example.line()
    mapped = pathlib.Path(f"/proc/{example.process.pid}/maps").read_text() if url else ""
    status, out, errors = example.finish(*(parameters(Browser().decide(url, "pay")) if url else ()))
    if (status, out) != (0, "The payment is captured.\n"):
        raise AssertionError(f"{step}: ends with {status}: {out}{errors}")
    return sorted(set(re.findall(r"/\S*libtallowin\S*", mapped)))


def check(step, found, wanted):
    if found != wanted:
        raise AssertionError(f"{step}: {found}, not {wanted}")
    print(f"{step}: as expected")


def unit_command():
    """The command of the unit, with a directory and ports of this test."""
    text = pathlib.Path("/usr/lib/systemd/user/tallowin-sandbox.service").read_text()
    command = shlex.split(re.search(r"^ExecStart=(.*)$", text, re.MULTILINE).group(1))
    return [re.sub(r"^[0-9]+$", "0", part).replace("%S", str(work)) for part in command]


def main():
    shared = glob.glob(SHARED)
    check("one shared library", len(shared), 1)
    sandbox = Program("tallowin-sandbox", "--data", work / "service", "--json")
    try:
        service = json.loads(sandbox.line())["auto"]
        check("C, shared", pay("C, shared", service, compiled("shared", pkg_config("--libs"))), shared)
        archive = ["-l:libtallowin.a" if part == "-ltallowin" else part for part in pkg_config("--static", "--libs")]
        check("C, static", pay("C, static", service, compiled("static", archive)), [])
        check("Java", pay("Java", service, "java", "-cp", "/usr/share/java/tallowin.jar",
                          tree / "examples/java/Quickstart.java"), shared)
    finally:
        check("the end of the sandbox", sandbox.stop()[::2], (0, ""))
    ledger = work / "ledger"
    (work / "ledger.c").write_text("#include <tallowin/ledger.h>\nint main(void) { DestroyLedger(CreateLedger()); return 0; }\n")
    output("cc", "-std=c99", "-Wall", "-Werror", work / "ledger.c", "-o", ledger,
           *output("pkg-config", "--cflags", "--libs", "tallowin-ledger").split())
    check("C, order ledger", output(ledger), "")
    (work / "Orders.java").write_text(ORDERS)
    check("Java, order ledger", output("java", "-cp", "/usr/share/java/tallowin.jar", work / "Orders.java").split(),
          glob.glob("/usr/lib/*/jni/libtallowin-ledger-jni.so"))
    unit = Program(*unit_command())
    line = unit.line()
    check("the end of the unit's command", unit.stop()[::2], (0, ""))
    check("the unit's command", "http://127.0.0.1:" in line, True)
    if shutil.which("systemd-analyze"):
        said = subprocess.run(["systemd-analyze", "--user", "--man=no", "verify", "tallowin-sandbox.service"], capture_output=True,
                              text=True, env={**os.environ, "XDG_RUNTIME_DIR": str(work)})
        check("the unit", (said.returncode, said.stdout + said.stderr), (0, ""))
    check("units that were enabled", glob.glob("/etc/systemd/user/*/*tallowin*"), [])
    if shutil.which("tallowin"):
        check("the command line", "tallowin" in output("tallowin", "--help"), True)
        check("the command line's orders", "resolve" in output("tallowin", "orders", "--help"), True)


main()
