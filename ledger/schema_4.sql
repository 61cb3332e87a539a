-- From version 3 of the tables of an order ledger to version 4, for SQLite.

-- The merchant account of the store: one row, from the config.xml of the first directory that opened it.
CREATE TABLE account (
  id              INTEGER PRIMARY KEY CHECK (id = 1),
  customer_id     TEXT NOT NULL,                -- CUSTOMERID; "": there was none
  payment_url     TEXT NOT NULL                 -- VTURL; distinguishes accounts where one of them has no CUSTOMERID
) STRICT;

-- Kept confirmations without an index over DATA and SIGNATURE, which took as much room again. The ledger compares a new
-- one with the few of its attempt before it adds it.
CREATE TABLE kept_once (
  id              INTEGER PRIMARY KEY,
  order_id        INTEGER NOT NULL,
  attempt         INTEGER NOT NULL,             -- the attempt that it claims to be for
  key_id          TEXT NOT NULL,
  messenger       TEXT NOT NULL,
  data            TEXT NOT NULL,
  signature       TEXT NOT NULL,
  created_at      INTEGER NOT NULL,
  FOREIGN KEY (order_id, attempt) REFERENCES attempts (order_id, attempt)
) STRICT;
INSERT INTO kept_once SELECT id, order_id, attempt, key_id, messenger, data, signature, created_at FROM kept;
DROP TABLE kept;
ALTER TABLE kept_once RENAME TO kept;
CREATE INDEX kept_attempt ON kept (order_id, attempt);
CREATE INDEX kept_key ON kept (key_id);         -- each pass of the worker reads the two last indexes, and no rows
CREATE INDEX kept_created ON kept (created_at);
