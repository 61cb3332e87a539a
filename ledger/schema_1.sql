-- The tables of an order ledger, version 1, for SQLite. The version stands in PRAGMA user_version.
--
-- All times are milliseconds since 1970 in UTC. Names of states and events are those of lifecycle.json. Merchants join
-- these tables with their own: names and meanings are published. Only the ledger writes them.

-- What the shop asked to be paid. Never changes, but for newest_attempt and what follows it.
CREATE TABLE orders (
  id              INTEGER PRIMARY KEY,
  number          TEXT NOT NULL UNIQUE,         -- ORDERID of its payments
  amount          TEXT NOT NULL,                -- exactly as asked for
  currency        TEXT NOT NULL,
  attributes      TEXT NOT NULL,                -- the other attributes as a JSON object, ordered by name
  created_at      INTEGER NOT NULL,
  newest_attempt  INTEGER NOT NULL,             -- counts from 1
  paid_attempt    INTEGER,                      -- the attempt that counts; NULL: not paid
  told_at         INTEGER                       -- when "paid now" was said; NULL: not yet
) STRICT;
CREATE INDEX orders_untold ON orders (id) WHERE paid_attempt IS NOT NULL AND told_at IS NULL;

-- One payment at the service. An order has a further one when the earlier were declined, cancelled or ran out of time.
CREATE TABLE attempts (
  order_id        INTEGER NOT NULL REFERENCES orders (id),
  attempt         INTEGER NOT NULL,             -- 1, 2, ...
  token           TEXT NOT NULL UNIQUE,         -- TOKEN
  state           TEXT NOT NULL,
  message         TEXT NOT NULL,                -- the signed text of the payment message
  url             TEXT NOT NULL,                -- the payment URL
  created_at      INTEGER NOT NULL,
  expires_at      INTEGER NOT NULL,             -- EXPIRATION
  result          TEXT,                         -- declined, cancelled, expired: what a confirmation said
  paid_at         INTEGER,                      -- when the ledger learned that it is paid; NULL: never
  payment_id      TEXT,                         -- ID: the service's name for the payment
  confirmation    TEXT,                         -- DATA of the confirmation that says paid; captures send it
  tries           INTEGER NOT NULL DEFAULT 0,   -- failed exchanges since the last result
  refusals        INTEGER NOT NULL DEFAULT 0,   -- captures that the service refused since the last result
  last_code       INTEGER,                      -- result code of the last exchange
  last_reason     TEXT,
  due_at          INTEGER,                      -- when the worker looks at it next, the end of a lease included; NULL: never
  lease_owner     TEXT,                         -- the worker that holds it until due_at; NULL: free
  PRIMARY KEY (order_id, attempt)
) STRICT;
CREATE INDEX attempts_due ON attempts (due_at) WHERE due_at IS NOT NULL;
CREATE INDEX attempts_state ON attempts (state, order_id);

-- The evidence: one row for each transition, in the order in which they were committed. Rows are added only.
CREATE TABLE transitions (
  sequence        INTEGER PRIMARY KEY AUTOINCREMENT,
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
CREATE INDEX transitions_attempt ON transitions (order_id, attempt);
CREATE TRIGGER transitions_keep BEFORE UPDATE ON transitions BEGIN SELECT RAISE(ABORT, 'transitions do not change'); END;
CREATE TRIGGER transitions_stay BEFORE DELETE ON transitions BEGIN SELECT RAISE(ABORT, 'transitions stay'); END;

-- The keys that the service has signed with.
CREATE TABLE service_keys (
  fingerprint     TEXT PRIMARY KEY,             -- SHA-256 of the DER form, lower-case hexadecimal
  key_id          TEXT NOT NULL,
  blob            TEXT NOT NULL,                -- the DER RSAPublicKey, lower-case hexadecimal
  first_at        INTEGER NOT NULL,
  replaced_at     INTEGER                       -- when another was first seen in its place; NULL: the current one
) STRICT, WITHOUT ROWID;

-- Confirmations under keys that are not here yet. The worker tries them again and deletes them.
CREATE TABLE kept (
  id              INTEGER PRIMARY KEY,
  order_id        INTEGER NOT NULL,
  attempt         INTEGER NOT NULL,             -- the attempt that it claims to be for
  key_id          TEXT NOT NULL,
  messenger       TEXT NOT NULL,
  data            TEXT NOT NULL,
  signature       TEXT NOT NULL,
  created_at      INTEGER NOT NULL,
  UNIQUE (order_id, attempt, data, signature),
  FOREIGN KEY (order_id, attempt) REFERENCES attempts (order_id, attempt)
) STRICT;
