#!/usr/bin/env bash
# Builds the consumer projects in tests/consumer: against the normal build
# installed into a scratch prefix (find_package: the whole package, the
# realtime component alone, an unknown component, and a clang-built program
# with Asio code of its own), and against the source tree
# (add_subdirectory). Each compiles Asio code of its own that the library's
# build settings must not reach.
set -euo pipefail
cd "$(dirname "$0")/.."
root=${BUILD_ROOT:-build}
scripts/build.sh normal
prefix=$PWD/$root/consumer/prefix
rm -rf "$root/consumer"

echo "consumer: find_package against the installed package"
cmake --install "$root/normal" --prefix "$prefix" >/dev/null
cmake -S tests/consumer -B "$root/consumer/installed" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$root/consumer/installed"
"$root/consumer/installed/consumer"

echo "consumer: the realtime component alone"
cmake -S tests/consumer/components -B "$root/consumer/components" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$root/consumer/components"
"$root/consumer/components/consumer-realtime"

echo "consumer: an unknown component is refused with the known ones"
if cmake -S tests/consumer/components -B "$root/consumer/unknown" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
      -DVANTOR_COMPONENTS=realtime\;chat >"$root/consumer/unknown.log" 2>&1; then
  echo "an unknown component was accepted"; exit 1
fi
# CMake wraps the message: compare it with the lines joined.
tr -s " \n" "  " <"$root/consumer/unknown.log" \
  | grep -q "no component \"chat\"; known components: realtime, account, util, platform"

echo "consumer: clang-16 with Asio code of its own"
cmake -S tests/consumer/asio -B "$root/consumer/asio" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_CXX_COMPILER="${CONSUMER_CXX:-clang++-16}" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$root/consumer/asio"
echo hello | "$root/consumer/asio/consumer-asio"

echo "consumer: add_subdirectory of the source tree"
# The normal build's type and warnings, so that with the compiler cache
# (scripts/build.sh) the library's sources compile from the cache.
launcher=()
if command -v ccache >/dev/null; then
  export CCACHE_NOHASHDIR=1
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S tests/consumer/subdirectory -B "$root/consumer/subdirectory" -G Ninja \
      -DVANTOR_SOURCE_DIR="$PWD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DVANTOR_WERROR="${VANTOR_WERROR:-ON}" "${launcher[@]}" >/dev/null
cmake --build "$root/consumer/subdirectory" --parallel "${JOBS:-$(nproc)}"
"$root/consumer/subdirectory/consumer"
