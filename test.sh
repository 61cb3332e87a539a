#!/usr/bin/env bash
# Builds everything and runs all tests.
#
#   ./test.sh               the release build, all tests
#   ./test.sh --sanitize    all tests under AddressSanitizer + UndefinedBehaviorSanitizer, then under ThreadSanitizer
#   ./test.sh --coverage    all tests, then line and branch coverage of the library
#   ./test.sh --x86         the 32-bit build and its tests, where the 32-bit packages can be installed
#
# Installs the Debian packages it needs (scripts/setup). Exit status 0 only when every test passed.
set -euo pipefail
cd "$(dirname "$0")"

jobs=$(nproc)
started=$SECONDS

# build_and_test PRESET: configures, builds and tests one preset.
build_and_test() {
  local preset=$1
  printf '== %s: configure\n' "$preset"
  cmake --preset "$preset" -Wno-dev >"build/$preset.log" 2>&1 || { cat "build/$preset.log"; return 1; }
  printf '== %s: build\n' "$preset"
  cmake --build --preset "$preset" --parallel "$jobs" -- --quiet
  printf '== %s: test\n' "$preset"
  ctest --test-dir "build/$preset" --parallel "$jobs" --output-on-failure --no-tests=error --progress
}

mode=${1:-}
mkdir -p build
case "$mode" in
  "")
    scripts/setup
    build_and_test release
    ;;
  --sanitize)
    scripts/setup
    export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:check_initialization_order=1
    export UBSAN_OPTIONS=print_stacktrace=1
    export TSAN_OPTIONS=halt_on_error=1
    build_and_test asan
    build_and_test tsan
    ;;
  --coverage)
    scripts/setup --extra
    build_and_test coverage
    scripts/coverage
    ;;
  --x86)
    scripts/setup --x86
    build_and_test x86
    ;;
  *)
    sed -n '2,9s/^# \{0,1\}//p' "$0"
    exit 2
    ;;
esac
printf '== all green in %d s\n' $((SECONDS - started))
