#!/usr/bin/env bash
# scripts/fuzz.sh [seconds]: builds the libFuzzer targets (clang, with
# AddressSanitizer and UBSan) in build/fuzz and runs each for `seconds`
# (default 300, or SECONDS_PER_TARGET) over a copy of its seed corpus in
# fuzz/corpus/<target>. The inputs found go to build/fuzz/corpus/<target>,
# never into the committed corpus. Exits non-zero when a target crashed,
# leaked, hit undefined behaviour or timed out, and says where the
# reproducer is.
set -uo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-${SECONDS_PER_TARGET:-300}}
targets=${FUZZ_TARGETS:-"frames presence endpoint account"}
dir=${BUILD_ROOT:-build}/fuzz
compiler=${FUZZ_CXX:-clang++-16}

if [ ! -f "$dir/build.ninja" ]; then
  # Only the libraries and the fuzz targets; -O1 keeps the build short.
  cmake -S . -B "$dir" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-g -O1" \
    -DVANTOR_SANITIZER=fuzzer -DVANTOR_BUILD_FUZZERS=ON -DVANTOR_WERROR="${VANTOR_WERROR:-ON}" \
    -DVANTOR_BUILD_TESTS=OFF -DVANTOR_BUILD_BENCHMARKS=OFF -DVANTOR_BUILD_DEMO=OFF || exit 1
fi
build_targets=()
for t in $targets; do build_targets+=(--target "vantor-fuzz-$t"); done
cmake --build "$dir" --parallel "${JOBS:-$(nproc)}" "${build_targets[@]}" || exit 1

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
# Stack traces name functions and lines through llvm-symbolizer, which comes
# with the llvm package; binutils' addr2line does as well.
if ! command -v llvm-symbolizer >/dev/null && command -v addr2line >/dev/null; then
  ASAN_OPTIONS+=:external_symbolizer_path=$(command -v addr2line)
  UBSAN_OPTIONS+=:external_symbolizer_path=$(command -v addr2line)
fi
failed=()
for t in $targets; do
  corpus=$dir/corpus/$t
  artifacts=$dir/artifacts/$t
  log=$dir/logs/$t.log
  mkdir -p "$corpus" "$artifacts" "$dir/logs"
  cp -n fuzz/corpus/"$t"/* "$corpus"/ 2>/dev/null
  stamp=$dir/logs/$t.started
  touch "$stamp"
  # 0 seconds replays the corpus once.
  if [ "$seconds" -gt 0 ]; then length=(-max_total_time="$seconds"); else length=(-runs=0); fi
  # -close_fd_mask=1: the library writes a line to standard output for every
  # close event it receives; libFuzzer reports on standard error.
  dict=(); [ -f fuzz/"$t".dict ] && dict=(-dict=fuzz/"$t".dict)
  "$dir/fuzz/vantor-fuzz-$t" "${length[@]}" "${dict[@]}" -max_len=4096 -timeout=10 \
    -rss_limit_mb=2048 -close_fd_mask=1 -print_final_stats=1 \
    -artifact_prefix="$artifacts/" "$corpus" >"$log" 2>&1
  status=$?
  stats=$(grep -E '^#[0-9]+' "$log" | tail -n 1)
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  echo "=== fuzz $t: ${seconds}s, ${runs:-?} runs; last: ${stats:-none}"
  if [ "$status" -ne 0 ]; then
    tail -n 40 "$log"
    find "$artifacts" -type f -newer "$stamp" | while read -r reproducer; do
      echo "reproducer: $reproducer (replay: $dir/fuzz/vantor-fuzz-$t $reproducer)"
    done
    echo "full log: $log"
    failed+=("$t")
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  printf 'FUZZ FAILED: %s\n' "${failed[@]}"
  exit 1
fi
