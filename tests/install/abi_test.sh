#!/usr/bin/env bash
# abi_test.sh TREE WORK: the C faces are those of the last release, and scripts/abi notices each kind of change.
set -euo pipefail
export LC_ALL=C
tree=$1 work=$2
command -v abidw >/dev/null || { echo 'abi_test.sh: needs abigail-tools (scripts/setup packages)'; exit 77; }
mkdir -p "$work"
env -u CC -u CXX "$tree/scripts/abi" "$work" || exit "$?"

# expect accepted|refused WHAT TEXT SED-EXPRESSION FILE: the record against the record with a change.
failed=0
record=$tree/packaging/abi
expect() {
  local wanted=$1 what=$2 text=$3 got=accepted
  rm -rf "$work/changed"
  cp -r "$record" "$work/changed"
  sed -i -E "$4" "$work/changed/$5"
  ! cmp -s "$record/$5" "$work/changed/$5" || { echo "$what: nothing was changed"; failed=1; }
  "$tree/scripts/abi" --compare "$record" "$work/changed" >"$work/said" 2>&1 || got=refused
  if [ "$got" != "$wanted" ] || ! grep -q -- "$text" "$work/said"; then
    echo "$what: $got, and it says:"
    cat "$work/said"
    failed=1
  fi
}
symbol="<elf-symbol name='MessageObject_Capture'"
expect refused 'a function is gone' 'MessageObject_Capture' \
  "/$symbol/d; /<function-decl name='MessageObject_Capture'/,/<\\/function-decl>/d" c-face.abi
expect refused 'a parameter is gone' 'SetOption' \
  "/<function-decl name='ConfigurationSetup_SetOption'/,/<\\/function-decl>/{/name='value'/d}" c-face.abi
expect refused 'an integer is wider' 'int32_t' "s/(<type-decl name='int' size-in-bits=)'32'/\\1'64'/" c-face.abi
expect refused 'a result has another type' 'MessageObject_Open' \
  "/<function-decl name='MessageObject_Open'/,/<\\/function-decl>/s/<return type-id='[^']*'/<return type-id='type-id-11'/" c-face.abi
expect refused 'a constant has another value' 'KVX_E_NOT_FOUND' 's/^(KVX_E_NOT_FOUND) .*/\1 0x80049999/' codes.txt
expect refused 'a constant is gone' 'KVX_E_CRYPTO' '/^KVX_E_CRYPTO /d' codes.txt
expect accepted 'a function is added' 'added since: MessageObject_Added' \
  "s/(.*)MessageObject_Capture(' version.*)/&\\n\\1MessageObject_Added\\2/" c-face.abi
expect accepted 'a constant is added' 'added since: KVX_E_ZZZ' 's/^KVX_OK /KVX_E_ZZZ 0x80049999\n&/' codes.txt
# The same of the order ledger, which the record of an older release does not have.
record=$work/now
symbol="<elf-symbol name='Ledger_Confirm'"
expect refused 'a function of the ledger is gone' 'Ledger_Confirm' \
  "/$symbol/d; /<function-decl name='Ledger_Confirm'/,/<\\/function-decl>/d" ledger-face.abi
expect refused 'a parameter of the ledger is gone' 'Ledger_Open' \
  "/<function-decl name='Ledger_Open'/,/<\\/function-decl>/{/name='directory'/d}" ledger-face.abi
expect refused 'an outcome has another value' 'KVX_LEDGER_PAID_NOW' 's/^(KVX_LEDGER_PAID_NOW) .*/\1 0x00000009/' codes.txt
expect accepted 'a function of the ledger is added' 'added since: Ledger_Added' \
  "s/(.*)Ledger_Confirm(' version.*)/&\\n\\1Ledger_Added\\2/" ledger-face.abi
exit "$failed"
