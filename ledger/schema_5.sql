-- From version 4 of the tables of an order ledger to version 5, for SQLite. A commit writes fewer pages.

-- The evidence without a table that counts beside it: rows stay, so no number of one is ever free for another.
CREATE TABLE transitions_kept (
  sequence        INTEGER PRIMARY KEY,
  order_id        INTEGER NOT NULL,
  attempt         INTEGER NOT NULL,
  from_state      TEXT NOT NULL,
  to_state        TEXT NOT NULL,
  event           TEXT NOT NULL,
  cause           TEXT NOT NULL,                -- messenger, worker, or a person's note
  at              INTEGER NOT NULL,
  code            INTEGER,                      -- result code of an exchange
  message         TEXT,                         -- the bytes received or about to be sent
  signature       TEXT,                         -- of a confirmation, as it came
  key_fingerprint TEXT,                         -- of the key that verified it
  FOREIGN KEY (order_id, attempt) REFERENCES attempts (order_id, attempt)
) STRICT;
INSERT INTO transitions_kept SELECT sequence, order_id, attempt, from_state, to_state, event, cause, at, code, message,
  signature, key_fingerprint FROM transitions ORDER BY sequence;
DROP TABLE transitions;
ALTER TABLE transitions_kept RENAME TO transitions;
CREATE INDEX transitions_attempt ON transitions (order_id, attempt);
CREATE TRIGGER transitions_keep BEFORE UPDATE ON transitions BEGIN SELECT RAISE(ABORT, 'transitions do not change'); END;
CREATE TRIGGER transitions_stay BEFORE DELETE ON transitions BEGIN SELECT RAISE(ABORT, 'transitions stay'); END;

-- Attempts that nothing is due of, by state. Those that something is due of stand in attempts_due.
DROP INDEX attempts_state;
CREATE INDEX attempts_state ON attempts (state, order_id) WHERE due_at IS NULL;
