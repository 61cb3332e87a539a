#!/usr/bin/env bash
# hardening.sh LIBRARY plain|instrumented [NEEDED...]: how a shared library is linked, and what it needs. NEEDED: further libraries
# that it may need; libtallowin.so.1 is then looked for beside it.
set -euo pipefail
export LC_ALL=C
library=$1 kind=$2
shift 2
dynamic=$(readelf -dW "$library")
segments=$(readelf -lW "$library")
failed=0
complain() {
  echo "$1"
  failed=1
}

soname=$(basename "$library").1
grep -qF "Library soname: [$soname]" <<< "$dynamic" || complain "the SONAME is not $soname"
grep -qE 'GNU_STACK .* RW +0x' <<< "$segments" || complain 'the stack is executable'
grep -q 'GNU_RELRO' <<< "$segments" || complain 'there is no RELRO segment'
grep -qE 'BIND_NOW|FLAGS_1.*NOW' <<< "$dynamic" || complain 'symbols are bound late: RELRO is partial'
grep -qE 'FLAGS_1.*NODELETE' <<< "$dynamic" || complain 'it can be unmapped under a thread that still looks up a name'
! grep -q 'TEXTREL' <<< "$dynamic" || complain 'code is relocated'
allowed=
[[ " $* " != *' libtallowin.so.1 '* ]] || allowed='$ORIGIN'
paths=$(sed -nE 's/.*\((RPATH|RUNPATH)\).*\[(.*)\]/\2/p' <<< "$dynamic")
[ "$paths" = "$allowed" ] || complain 'libraries are looked for in places of the builder'

if [ "$kind" = plain ]; then
  needed=$(sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' <<< "$dynamic")
  for name in $needed; do
    [[ " $* " != *" $name "* ]] || continue
    case $name in
      libssl.so.3 | libcrypto.so.3 | libuuid.so.1 | libstdc++.so.6 | libgcc_s.so.1 | libm.so.6 | libc.so.6) ;;
      ld-linux*.so.*) ;; # the C library's other file, for variables of threads
      *) complain "needs $name" ;;
    esac
  done
fi
exit "$failed"
