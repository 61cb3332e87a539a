#!/usr/bin/env bash
# Builds everything and runs all tests.
#
#   ./test.sh               the release build, all tests
#   ./test.sh --quick       the release build of what the change touches, its tests without slow ones, and the checks;
#                           a second argument names the commit to compare with (scripts/touched)
#   ./test.sh --sanitize    all tests under AddressSanitizer + UndefinedBehaviorSanitizer, then under ThreadSanitizer
#   ./test.sh --browser     the release build of the shop and the sandbox, and the tests that drive a browser
#   ./test.sh --coverage    all tests, then line and branch coverage of the library
#   ./test.sh --deep        all tests, then the long forms of those that have no natural end, the fuzz targets, the mutants
#   ./test.sh --x86         the 32-bit build and its tests, in a 32-bit Debian of its own (scripts/x86root); needs some GB
#
# Installs the Debian packages it needs (scripts/setup). Exit status 0 only when every test passed.
set -euo pipefail
cd "$(dirname "$0")"

jobs=$(nproc)
started=$SECONDS
targets=() # to build, everything when empty
chosen=()  # options of ctest that choose tests

# build_and_test PRESET [PLACE COMMAND...]: configures, builds and tests one preset in PLACE, each step run by COMMAND.
build_and_test() {
  local preset=$1 place=${2:-build/$1} log=build/$1.log
  shift $(($# < 2 ? $# : 2))
  printf '== %s: configure\n' "$preset"
  "$@" cmake --preset "$preset" -B "$place" -Wno-dev >"$log" 2>&1 || { cat "$log"; return 1; }
  printf '== %s: build\n' "$preset"
  "$@" cmake --build "$place" --parallel "$jobs" "${targets[@]}" -- --quiet
  printf '== %s: test\n' "$preset"
  "$@" ctest --test-dir "$place" --parallel "$jobs" --output-on-failure --no-tests=error --progress \
    "${chosen[@]}"
}

# long_forms: tests whose length is a number, with larger numbers. Not by ctest, whose limits are for the short forms; one
# after the other, since some measure the whole process.
long_forms() {
  local program filter
  while read -r program filter; do
    printf '== release: long forms of %s\n' "$filter"
    [ -n "$("build/release/tests/$program" --gtest_list_tests --gtest_filter="$filter")" ]
    KVX_HANDLE_ROUNDS=1000000 KVX_FORKS=2000 KVX_STRESS_ROUNDS=2000 KVX_FORGERIES=1000000 KVX_SOAK_SECONDS=600 \
      KVX_DOCUMENTS=1000000 \
      timeout 3600 "build/release/tests/$program" --gtest_brief=1 --gtest_filter="$filter"
  done <<'END'
api/api_tests WildHandle.*:ForkedChild.*:Stress.*
core/core_tests RandomForgeries.*
flow/flow_tests Soak.*
xml/xml_tests RandomDocuments.*
END
  ledger_long_forms
  printf '== release: long form of unloading\n'
  timeout 3600 build/release/tests/c/unload_test build/release/libtallowin.so 1000000
  KVX_CLASS_LOADERS=2000 ctest --test-dir build/release -R '^Java\.LoaderCyclesTest$' --output-on-failure --no-tests=error
  printf '== release: long form of the Debian packages\n'
  timeout 3600 tests/install/debian_test.sh "$PWD" build/release/debian --deep
  printf '== release: a newcomer on a bare Debian\n'
  rm -rf build/newcomer
  timeout 3600 scripts/debianroot --packages ca-certificates build/newcomer tests/install/newcomer.sh /tallowin /build/work
}

# ledger_long_forms: the same of the ledger's tests in Python, over SQLite and over PostgreSQL.
ledger_long_forms() {
  local tests=$PWD/tests script
  for script in model/ledger_model_test kill/ledger_kill_test ledger_races_test ledger_forgeries_test; do
    ledger_long_form "$script"
  done
  for script in kill/ledger_kill_test ledger_races_test; do
    ledger_long_form "$script" python3 -B "$tests/ledger/support/withpostgresql.py"
  done
}

# ledger_long_form SCRIPT [COMMAND...]: one of them, run by the command.
ledger_long_form() {
  local tests=$PWD/tests script=$1
  shift
  printf '== release: long form of %s %s\n' "$script" "${3:+on PostgreSQL}"
  PYTHONPATH=$tests/ledger/model:$tests/ledger/support:$tests/sandbox/support:$tests/support \
    KVX_LEDGER=$PWD/build/release/libtallowin-ledger.so KVX_SANDBOX=$PWD/build/release/sandbox/tallowin-sandbox \
    KVX_LEDGER_SEQUENCES=100000 KVX_LEDGER_KILLS=5000 KVX_LEDGER_RACES=2000 KVX_LEDGER_FORGERIES=1000000 \
    timeout 14400 "$@" python3 -B "$tests/ledger/$script.py"
}

mode=${1:-}
mkdir -p build
case "$mode" in
  "")
    scripts/setup java-tests browser packages languages docs
    build_and_test release
    ;;
  --quick)
    scripts/setup java-tests packages languages docs
    labels=$(scripts/touched "${@:2}" | grep -vx browser || true) # the browser has a mode of its own
    targets=(--target)
    for label in $labels; do
      case $label in
        install) targets+=(tallowin tallowin_static java/all) ;;
        python | php | node) targets+=(tallowin tallowin-sandbox) ;;
        docs) targets+=(tests/docs/all tallowin tallowin-sandbox tallowin_tool) ;;
        examples | browser) targets+=(examples/all tallowin-sandbox) ;;
        tools) targets+=(tools/all tallowin-sandbox) ;;
        fuzz) targets+=(fuzz/all) ;;
        scripts) ;;
        *) targets+=("tests/$label/all") ;;
      esac
    done
    [ ${#targets[@]} -gt 1 ] || targets+=(tallowin)
    chosen=(--label-regex "^($(paste -sd '|' <<<"$labels"))\$" --label-exclude '^(slow|browser)$')
    [ -z "$labels" ] || build_and_test release
    scripts/check
    scripts/contracts
    scripts/links
    scripts/format --check
    ;;
  --browser)
    scripts/setup browser
    targets=(--target tallowin-shop tallowin-sandbox)
    chosen=(--label-regex '^browser$')
    build_and_test release
    ;;
  --sanitize)
    scripts/setup java-tests
    export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:check_initialization_order=1
    export UBSAN_OPTIONS=print_stacktrace=1
    # Children of processes with threads start threads too, and have none of the parent's to wait for.
    export TSAN_OPTIONS=halt_on_error=1:die_after_fork=0:report_thread_leaks=0
    build_and_test asan
    build_and_test tsan
    ;;
  --coverage)
    scripts/setup java-tests coverage
    build_and_test coverage
    scripts/coverage
    ;;
  --deep)
    scripts/setup java-tests browser packages languages docs fuzz
    build_and_test release
    long_forms
    scripts/fuzz 30
    scripts/mutants
    ;;
  --x86)
    scripts/setup x86
    build_and_test x86 /build scripts/x86root build/x86-root
    ;;
  *)
    sed -n '2,13s/^# \{0,1\}//p' "$0"
    exit 2
    ;;
esac
printf '== all green in %d s\n' $((SECONDS - started))
