-- From version 1 of the tables of an order ledger to version 2, for SQLite.

-- Deliveries that are acknowledged.
ALTER TABLE orders ADD COLUMN delivered_at INTEGER;  -- when the shop said that it has delivered; NULL: it did not say
ALTER TABLE orders ADD COLUMN report_at INTEGER;     -- when the order is reported as paid again; NULL: it is not
CREATE INDEX orders_undelivered ON orders (report_at) WHERE report_at IS NOT NULL;

-- Answers of the service that lead nowhere.
ALTER TABLE attempts ADD COLUMN asks INTEGER NOT NULL DEFAULT 0;  -- status requests in a row that changed nothing
CREATE INDEX attempts_asks ON attempts (asks, order_id) WHERE asks > 0;
