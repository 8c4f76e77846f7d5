#!/usr/bin/env bash
# Installs the normal build into a scratch prefix and builds the consumer
# project in tests/consumer against it with find_package.
set -euo pipefail
cd "$(dirname "$0")/.."
root=${BUILD_ROOT:-build}
scripts/build.sh normal
prefix=$PWD/$root/consumer/prefix
rm -rf "$root/consumer"
cmake --install "$root/normal" --prefix "$prefix" >/dev/null
cmake -S tests/consumer -B "$root/consumer/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$root/consumer/build"
"$root/consumer/build/consumer"
