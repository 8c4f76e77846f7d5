#!/usr/bin/env bash
# Runs the desktop sample's screenshot mode as `make demo-desktop` does, and
# checks that it exits 0 having written a PNG.
set -euo pipefail
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
"$1" --screenshot "$out/window.png" --user alice
[ "$(head -c 8 "$out/window.png" | od -An -tx1 | tr -d ' \n')" = 89504e470d0a1a0a ] || {
  echo "window.png is not a PNG" >&2
  exit 1
}
