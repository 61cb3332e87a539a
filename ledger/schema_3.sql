-- From version 2 of the tables of an order ledger to version 3, for SQLite.

-- Renewals of the merchant's own key, by any of the servers on this store. Rows are added, and change once: when the
-- renewal ends.
CREATE TABLE renewals (
  generation      INTEGER PRIMARY KEY,          -- 1, 2, ...; of those that are done the highest is current
  state           TEXT NOT NULL,                -- running, done, unchanged, doubtful, interrupted
  owner           TEXT NOT NULL,                -- the directory that renews: its .renewal/id, and a number
  begun_at        INTEGER NOT NULL,
  lease_until     INTEGER NOT NULL,             -- how long no other directory renews
  ended_at        INTEGER,
  code            INTEGER,                      -- result code of the set-up
  reason          TEXT,
  key_id          TEXT,                         -- the new key, once it may have been published
  key_fingerprint TEXT,                         -- SHA-256 of its DER form, lower-case hexadecimal
  sealed          TEXT                          -- the newest set-up for other servers, under KEYSECRET; NULL: not there
) STRICT;
