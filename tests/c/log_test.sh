#!/usr/bin/env bash
# log_test.sh COMMAND...: runs a program that fails in many ways, passwords included, with a log, and looks at the log.
set -euo pipefail
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT

KVXLOG=$place/log KVXLOGSIZE=0 "$@" > "$place/out"

expect() { grep -Eq -- "$1" "$place/log" || { echo "no line has: $1"; cat "$place/log"; exit 1; }; }
refuse() { ! grep -E -- "$1" "$place/log" || { echo "a line has: $1"; exit 1; }; }

line='^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\.[0-9]{3}Z [0-9]+/[0-9]+ (TRACE [a-zA-Z]+\([0-9]+\) [A-Z ]+|FAILURE 0x[0-9A-F]{8} [A-Z_]+ )'
if grep -Evn -- "$line" "$place/log"; then
  echo 'these are no lines of a log'
  exit 1
fi
expect 'TRACE kvxctx\(516\) START RECONFIGURE$'
expect 'TRACE kvxctx\(545\) RECONFIGURE OK$'
expect 'TRACE kvxhttp\(885\) URL OPEN http://127\.0\.0\.1:[0-9]+$'
expect 'TRACE kvxhttp\(885\) URL OPEN \(not shown\)$' # credentials that cut the address in the wrong place
expect 'FAILURE 0x80040213 KVX_E_SERVER_ERROR the request failed \('
expect 'FAILURE 0x8004410B KVX_E_TLS_FAMILY .*wrong version number'
expect 'FAILURE 0x00000002 ENOENT .*its parent directory is missing'
expect 'FAILURE 0x80040216 KVX_E_BAD_HANDLE '
refuse 'Same|Se@|Basic |DATA=|SIGNATURE='
# The passwords of the program stand nowhere; "demo" is a user's name as well, in the service's own text.
refuse 'demo:demo|wrong\)|password "'
[ "$(stat -c %a "$place/log")" = 600 ] || { echo 'others may read the log'; exit 1; }
echo "$(wc -l < "$place/log") lines"
