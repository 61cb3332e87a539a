#!/usr/bin/env bash
# What a shop tests first: paid, declined, too late, and a confirmation with another amount.
#
#   payments.sh DIRECTORY     an empty directory for the sandbox and the merchant
set -euo pipefail
. "$(dirname "$0")/sandbox.sh"

fail() { printf 'failed: %s\n' "$*" >&2; exit 1; }

sandbox_start "$1/sandbox"
trap sandbox_stop EXIT
export TALLOWIN_DIR=$1/merchant
printf 'demo\n' >"$1/password"
tallowin setup "$sandbox_auto" --user demo --password-file "$1/password" --json >"$1/setup.json"

# open ORDER: makes a payment and opens its page. Sets token.
open() {
  tallowin pay --amount 19.90 --currency EUR --order "$1" --json >"$1.json"
  token=$(sandbox_member token <"$1.json")
  curl -sSf -o "$1.html" "$(sandbox_member url <"$1.json")"
}

# decide ORDER DECISION: the address that the shopper's browser is sent to.
decide() {
  sandbox_control POST "payments/decision?order=$1" "{\"decision\": \"$2\"}" | sandbox_member link
}

# check ORDER ADDRESS: whether the confirmation is that of the paid order.
check() {
  printf '%s\n' "$2" >"$1.address"
  tallowin verify --file "$1.address" --token "$token" --amount 19.90 --currency EUR --order "$1" >"$1.verified" 2>&1
}

cd "$1"
open A-1
check A-1 "$(decide A-1 pay)" || fail "a paid order is not accepted"
echo "ok: a paid order"

open A-2
check A-2 "$(decide A-2 decline)" && fail "a declined order is accepted"
grep -q declined A-2.verified || fail "the reason is not RESULT"
echo "ok: a declined order"

open A-3
sandbox_control POST clock '{"step": 7200}' >clock.json
sandbox_control GET 'payments/newest?order=A-3&until=expired&seconds=10' >expired.json || fail "the payment does not expire"
sandbox_control POST clock '{"ahead": 0}' >clock.json
echo "ok: an order that is not paid in time"

open A-4
sandbox_control POST faults '{"kind": "wrong-amount", "exchange": "decision", "order": "A-4"}' >fault.json
check A-4 "$(decide A-4 pay)" && fail "a confirmation with another amount is accepted"
grep -q 29.90 A-4.verified || fail "the reason is not AMOUNT"
echo "ok: a confirmation with another amount"
