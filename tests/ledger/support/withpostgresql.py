"""withpostgresql.py COMMAND [ARGUMENT]...: runs the command with a PostgreSQL server of its own, and stops the server afterwards.

The command finds the server's address in KVX_LEDGER_POSTGRESQL, as "postgresql://shop@/%s?host=FOLDER": %s is to be replaced by
the name of a database; the user may create them. The server listens on a socket in a folder of its own and on no port. It refuses
to run as root, so root starts it as the user nobody. Exit status: that of the command; 77 without PostgreSQL's programs.
"""

import contextlib
import os
import pathlib
import pwd
import shutil
import signal
import subprocess
import sys
import tempfile

START_SECONDS = 60
SETTINGS = {"listen_addresses": "''", "fsync": "off", "full_page_writes": "off", "max_connections": "200",
            "shared_buffers": "32MB", "log_min_messages": "fatal", "logging_collector": "off"}


def programs():
    """The folder of the newest release, or None."""
    found = shutil.which("initdb")
    folders = [pathlib.Path(found).parent] if found else []
    folders += sorted(pathlib.Path("/usr/lib/postgresql").glob("*/bin"), key=lambda path: float(path.parent.name), reverse=True)
    return next((folder for folder in folders if (folder / "initdb").exists()), None)


def as_server_user():
    """What goes in front of a command of the server."""
    return ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"] if os.geteuid() == 0 else []


def run(*command):
    done = subprocess.run([*as_server_user(), *command], cwd="/", stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=START_SECONDS * 2, text=True)
    if done.returncode != 0:
        raise SystemExit(f"{command[0]}: {done.stdout}")


@contextlib.contextmanager
def server(folder, place):
    data, log = place / "data", place / "log"
    if os.geteuid() == 0:
        nobody = pwd.getpwnam("nobody")
        os.chown(place, nobody.pw_uid, nobody.pw_gid)
    place.chmod(0o755)
    run(folder / "initdb", "--auth=trust", "--username=shop", "--encoding=UTF8", "--locale=C", "--no-sync", "-D", data)
    settings = " ".join(f"-c {name}={value}" for name, value in SETTINGS.items())
    run(folder / "pg_ctl", "start", "-w", "-t", str(START_SECONDS), "-D", data, "-l", log, "-o", f"{settings} -k {place}")
    try:
        yield f"postgresql://shop@/%s?host={place}"
    finally:
        run(folder / "pg_ctl", "stop", "-w", "-m", "immediate", "-D", data)


def main(command):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))  # ends the command and the server
    folder = programs()
    if folder is None:
        print("PostgreSQL's server is not installed (scripts/setup tests)")
        return 77
    with tempfile.TemporaryDirectory(prefix="tallowin-pg-", dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None) as place:
        with server(folder, pathlib.Path(place)) as address:
            environment = {**os.environ, "KVX_LEDGER_POSTGRESQL": address, "PATH": f"{folder}:{os.environ['PATH']}"}
            return subprocess.run(command, env=environment).returncode


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
