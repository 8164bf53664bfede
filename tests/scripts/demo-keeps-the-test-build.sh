#!/usr/bin/env bash
# The README's two commands share build/release. Run after scripts/test, scripts/demo must
# succeed, any number of times, and leave the folder configured exactly as scripts/test
# left it, so that scripts/test after it finds its tests: either order works.
set -euo pipefail
build=$1
cd "$(dirname "$0")/../.."

settings() { grep -E '^(ZAVLO_[A-Z_]+|CMAKE_BUILD_TYPE|CMAKE_CXX_COMPILER_LAUNCHER):' "$build/CMakeCache.txt" | sort; }
tests() { ctest --test-dir "$build" -N --no-tests=error | tail -1; }

before=$(settings)
tests_before=$(tests)
for run in 1 2; do
  if ! output=$(scripts/demo 2>&1); then
    printf '%s\n' "$output"
    echo "FAIL: scripts/demo exited with an error on run $run"
    exit 1
  fi
  if ! grep -q '^demo: every step succeeded' <<<"$output"; then
    printf '%s\n' "$output"
    echo "FAIL: scripts/demo did not report success on run $run"
    exit 1
  fi
done
after=$(settings)
if [[ "$before" != "$after" ]]; then
  diff <(printf '%s\n' "$before") <(printf '%s\n' "$after") || true
  echo "FAIL: scripts/demo changed how $build is configured"
  exit 1
fi
tests_after=$(tests)
if [[ "$tests_before" != "$tests_after" ]]; then
  echo "FAIL: $build lists other tests after scripts/demo: '$tests_before' before, '$tests_after' after"
  exit 1
fi
echo "scripts/demo ran twice after scripts/test and left $build as it was ($tests_after)"
