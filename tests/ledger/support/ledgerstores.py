"""Stores for tests: files, or databases of their own where KVX_LEDGER_POSTGRESQL names a server (withpostgresql.py)."""

import itertools
import os
import sqlite3
import subprocess

ADDRESS = os.environ.get("KVX_LEDGER_POSTGRESQL", "")
TIMEOUT_SECONDS = 60
numbers = itertools.count(1)


def psql(database, statement):
    """The rows, each as a list of texts."""
    done = subprocess.run(["psql", "-X", "-q", "-A", "-t", "-v", "ON_ERROR_STOP=1", ADDRESS % database, "-c", statement],
                          capture_output=True, text=True, timeout=TIMEOUT_SECONDS)
    if done.returncode != 0:
        raise AssertionError(done.stderr)
    return [line.split("|") for line in done.stdout.splitlines()]


def new_store(file):
    """What opens an empty store: the path, or the address of a new database."""
    if not ADDRESS:
        return file
    database = f"p{os.getpid()}_{next(numbers)}"
    psql("postgres", f"CREATE DATABASE {database}")
    return ADDRESS % database


def discard(store):
    """Frees the room of a store on a server."""
    if ADDRESS:
        database = store.partition("@/")[2].partition("?")[0]
        psql("postgres", f"DROP DATABASE {database} WITH (FORCE)")


def problems(store):
    """What the database finds wrong with itself."""
    if ADDRESS:
        return []
    with sqlite3.connect(store) as connection:
        return [row for row in connection.execute("PRAGMA integrity_check").fetchall() if row != ("ok",)]
