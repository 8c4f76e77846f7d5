#!/usr/bin/env bash
# scripts/build.sh <normal|asan|tsan> [target...]: configures and builds one
# of the three build trees under build/.
set -euo pipefail
cd "$(dirname "$0")/.."
config=${1:?usage: scripts/build.sh <normal|asan|tsan> [target...]}
shift
case "$config" in
  normal) args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DVANTOR_SANITIZER=none) ;;
  # Line tables only (-g1) in the sanitizer builds: reports keep file and
  # line, and the Beast-heavy files compile about a quarter faster.
  # The benchmarks measure the normal build only: the sanitizer builds
  # leave them out, which saves compiling them twice.
  asan)   args=(-DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-g1 -O1" -DVANTOR_SANITIZER=address
                -DVANTOR_BUILD_BENCHMARKS=OFF) ;;
  tsan)   args=(-DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-g1 -O1" -DVANTOR_SANITIZER=thread
                -DVANTOR_BUILD_BENCHMARKS=OFF) ;;
  *) echo "unknown build: $config" >&2; exit 2 ;;
esac
dir=${BUILD_ROOT:-build}/$config
# A compiler cache that outlives the build trees (~/.cache/ccache): a build
# tree made again, or the consumer check's own build of the sources, reuses
# what an earlier build compiled with the same command. Paths stay absolute
# and the working directory is not hashed, so trees in other directories hit.
launcher=()
if command -v ccache >/dev/null; then
  export CCACHE_NOHASHDIR=1
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
# Configured every time, so that a change of these flags reaches an
# existing tree.
cmake -S . -B "$dir" -G Ninja -DVANTOR_WERROR="${VANTOR_WERROR:-ON}" "${launcher[@]}" "${args[@]}" >/dev/null
targets=()
for t in "$@"; do targets+=(--target "$t"); done
cmake --build "$dir" --parallel "${JOBS:-$(nproc)}" "${targets[@]}"
