#!/usr/bin/env bash
# Builds and runs the whole suite in the normal, AddressSanitizer+UBSan and
# ThreadSanitizer builds, runs each fuzz target for FUZZ_SECONDS (30; 0 skips
# them), then checks that an outside project can consume the installed
# package. Exits non-zero if anything failed.
set -uo pipefail
cd "$(dirname "$0")/.."
configs=${CONFIGS:-"normal asan tsan"}
failed=()
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

for config in $configs; do
  echo "=== $config: build"
  start=$SECONDS
  if ! scripts/build.sh "$config"; then
    failed+=("$config build"); continue
  fi
  echo "=== $config: test"
  if ! ctest --test-dir "${BUILD_ROOT:-build}/$config" --output-on-failure --timeout 300 -j "${JOBS:-$(nproc)}"; then
    failed+=("$config tests")
  fi
  echo "=== $config: $((SECONDS - start))s"
done

fuzz_seconds=${FUZZ_SECONDS:-30}
if [ "$fuzz_seconds" -gt 0 ]; then
  echo "=== fuzz: build and ${fuzz_seconds}s per target"
  start=$SECONDS
  if ! scripts/fuzz.sh "$fuzz_seconds"; then
    failed+=("fuzz")
  fi
  echo "=== fuzz: $((SECONDS - start))s"
fi

echo "=== consumer of the installed package"
if ! scripts/consumer-check.sh; then
  failed+=("consumer check")
fi

if [ ${#failed[@]} -gt 0 ]; then
  printf 'FAILED: %s\n' "${failed[@]}"
  exit 1
fi
echo "All builds and tests passed."
