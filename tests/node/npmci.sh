#!/usr/bin/env bash
# npmci.sh NPM PACKAGE PLACE: copies the package to PLACE and installs there what its lock file names. Exit status 77 when there
# is no network for that; the tests in JavaScript are then skipped too.
set -euo pipefail
npm=$1 package=$2 place=$3

rm -rf "$place"
mkdir -p "$place"
cp -R "$package"/. "$place"
cd "$place"
if said=$("$npm" ci --ignore-scripts --prefer-offline --no-audit --no-fund --loglevel=error 2>&1); then
  exit 0
fi
printf '%s\n' "$said"
rm -rf node_modules
if grep -qE 'ENOTFOUND|EAI_AGAIN|ECONNREFUSED|ECONNRESET|ENETUNREACH|EHOSTUNREACH|ETIMEDOUT|ERR_SOCKET_TIMEOUT' <<<"$said"; then
  echo 'npm has no network: the tests in JavaScript are skipped'
  exit 77
fi
exit 1
