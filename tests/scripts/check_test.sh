#!/usr/bin/env bash
# check_test.sh TREE: plants mistakes in a copy of the tree, one at a time, and looks that the checks find each.
set -euo pipefail
export LC_ALL=C
tree=$1
copy=$(mktemp -d)
trap 'rm -rf -- "$copy"' EXIT
tar -C "$tree" --exclude=./build --exclude=./.git -cf - . | tar -C "$copy" -xf -
cd "$copy"
failed=0
planted=0

all_checks() { scripts/check || true; scripts/layers check || true; scripts/style || true; }
before=$(all_checks 2>&1)

# plant FILE LINE COMPLAINT: adds the line at the end of the file, and wants that file's complaint.
plant() {
  local file=$1 line=$2 complaint=$3 kept=
  [ ! -e "$file" ] || { kept=yes; cp "$file" kept.tmp; }
  printf '%s\n' "$line" >>"$file"
  compare "$file" "$complaint"
  if [ -n "$kept" ]; then mv kept.tmp "$file"; else rm "$file"; fi
}
compare() {
  local new
  planted=$((planted + 1))
  new=$(comm -13 <(sort -u <<<"$before") <(all_checks 2>&1 | sort -u))
  grep -qE "^$1:[0-9]+: .*$2" <<<"$new" || {
    printf 'not found in %s: %s; but: %s\n' "$1" "$2" "$new"
    failed=1
  }
}

plant foundation/tbmap.cpp '#include "xml/xmlelement.h"' 'foundation '
plant foundation/tbmap.cpp '#include "tallowin/xmlelement.h"' 'foundation does not include xml'
plant xml/xmlparser.cpp '#include "net/kvxurl.h"' 'xml '
plant core/kvxfile.cpp '#include "net/kvxhttp.h"' 'core base does not include net'
plant net/kvxhttp.cpp '#include "tallowin/kvxctx.h"' 'net '
plant core/kvxctx.cpp '#include "api/kvxhandle.h"' 'core '
plant api/cMessageObject.cpp '#include "jni/kvxjni.h"' 'api '
plant include/tallowin/codes.h '#include "tbobject.h"' 'include does not include foundation'
plant api/cMessageObject.cpp '#include "sandbox/text/wiretext.h"' 'library does not include sandbox'
plant sandbox/text/wiretext.cpp '#include "sandbox/store/store.h"' 'text does not include store'
plant sandbox/http/httptext.cpp '#include "sandbox/control/control.h"' 'http does not include control'
plant sandbox/http/httptext.cpp '#include "foundation/tbstring.h"' 'sandbox does not include library'
plant sandbox/http/httptext.cpp '#include <tallowin/tallowin.h>' 'sandbox does not include library'
plant examples/c/payment.c '#include "core/kvxfile.h"' 'examples '
plant tools/session.cpp '#include "sandbox/crypto/signature.h"' 'tools includes public headers only'
plant diagnosis/diagnosis.cpp '#include "sandbox/store/store.h"' 'diagnosis does not include store'
plant xml/xmlparser.cpp '#include "xml/nosuchfile.h"' 'no file of the tree'
plant sandbox/text/again.h $'#pragma once\nint again();' 'the include guard is TALLOWIN_SANDBOX_TEXT_AGAIN_H'
plant sandbox/text/again.h $'#pragma once\nint again();' 'use an include guard'
plant include/tallowin/again.h $'#ifndef AGAIN_H\n#define AGAIN_H\n#endif' 'the include guard is TALLOWIN_AGAIN_H'
plant tests/xml/tbmap.cpp '' 'has the same name'
plant tests/java/exports.sh '' 'has the same name'
plant include/tallowin/codes.h '/* is copied. THREADS    no locks. */' 'THREADS begins a section'
plant core/kvxfile.cpp 'int a = std::atoi("1");' 'atoi'
plant net/kvxhttp.cpp 'char const* kWhere = __FILE__;' 'constants'
plant api/cMessageObject.cpp 'int b = 0x80040213;' 'has a name'
plant sandbox/http/httptext.cpp 'void c(char* d) { strcpy(d, "e"); }' 'bounds'
plant core/kvxfile.cpp 'int f() { return ::open("g", 0); }' 'tbSystem'
plant examples/shop/orderbook.cpp '// TODO' 'finish it'

# A public header that points into another layer than its name says.
ln -sf ../../api/kvxhandle.h include/tallowin/tbmap.h
compare '(foundation|xml|core|net)/[a-z_]*\.(h|cpp)' 'does not include api'
ln -sf ../../foundation/tbmap.h include/tallowin/tbmap.h

[ "$(all_checks 2>&1)" = "$before" ] || { echo 'the copy is not as it was'; failed=1; }
grep -q '^    L[0-9]* --> L[0-9]*$' <<<"$(scripts/layers draw)" || { echo 'nothing is drawn'; failed=1; }
echo "$planted mistakes planted"
exit "$failed"
