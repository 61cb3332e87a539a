#!/usr/bin/env bash
# symbols.sh LIBRARY SYMBOLS VERSION: the list of symbols of the Debian package names all C functions that the library exports, each
# since a release up to VERSION.
set -euo pipefail
export LC_ALL=C
library=$1 symbols=$2 version=$3
failed=0
listed=$(sed -nE 's/^ ([A-Za-z0-9_]+)@TALLOWIN_(LEDGER_)?[0-9]+ .*/\1/p' "$symbols" | sort)
exported=$(nm -D --defined-only "$library" | sed -nE 's/^[0-9a-f]+ [A-Z] ([A-Za-z0-9_]+)@@(TALLOWIN_(LEDGER_)?[0-9]+)$/\1 \2/p' |
             awk '!/^Java_/ { print $1; print $2 }' | sort -u)
diff -u --label "$symbols" --label 'exported now' <(printf '%s\n' "$listed") <(printf '%s\n' "$exported") ||
  { echo "a new function gets a line with the coming version, which is $version unless that is released"; failed=1; }
while read -r since; do
  dpkg --compare-versions "$since" le "$version" || { echo "a function is there since $since, this is $version"; failed=1; }
done < <(sed -nE 's/^ .*@TALLOWIN_(LEDGER_)?[0-9]+\$? ([0-9.]+)$/\2/p' "$symbols" | sort -u)
exit "$failed"
