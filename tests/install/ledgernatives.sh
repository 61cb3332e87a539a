#!/usr/bin/env bash
# ledgernatives.sh LIBRARY SOURCE plain|instrumented: the native library of the Java classes of the ledger shows the methods that
# SOURCE, the Java class, declares, and nothing else; it needs what the ledger and the component need together.
set -euo pipefail
export LC_ALL=C
library=$1 source=$2 kind=$3
failed=0
complain() {
  echo "$1"
  failed=1
}

declared=$(sed -nE 's/^ *static native [a-z]+ ([A-Za-z]+)\(.*/Java_kelvane_tallowin_ledger_Natives_\1/p' "$source" | sort)
[ -n "$declared" ] || complain 'no native methods are declared'
diff -u --label declared --label exported <(printf '%s\n' "$declared") <(nm -D --defined-only "$library" | sed 's/.* //' | sort) ||
  complain 'other names'

dynamic=$(readelf -dW "$library")
grep -qE 'BIND_NOW|FLAGS_1.*NOW' <<< "$dynamic" || complain 'symbols are bound late'
grep -qE 'FLAGS_1.*NODELETE' <<< "$dynamic" || complain 'it can be unmapped'
readelf -lW "$library" | grep -qE 'GNU_STACK .* RW +0x' || complain 'the stack is executable'
if grep -E '\((RPATH|RUNPATH)\)' <<< "$dynamic"; then complain 'libraries are looked for in places of the builder'; fi
if [ "$kind" = plain ]; then
  for name in $(sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' <<< "$dynamic"); do
    case $name in
      libsqlite3.so.0 | libssl.so.3 | libcrypto.so.3 | libuuid.so.1 | libstdc++.so.6 | libgcc_s.so.1 | libm.so.6 | libc.so.6) ;;
      ld-linux*.so.*) ;; # the C library's other file, for variables of threads
      *) complain "needs $name" ;;
    esac
  done
fi
exit "$failed"
