#!/usr/bin/env bash
# nodetest.sh NODE TESTS: runs a file of tests over the package in $KVX_NODE_PACKAGE. Exit status 77 when its dependencies could
# not be installed (npmci.sh).
set -euo pipefail
if [ ! -d "$KVX_NODE_PACKAGE/node_modules/koffi" ]; then
  echo 'koffi is not installed: npm had no network'
  exit 77
fi
exec "$1" --expose-gc --test "$2"
