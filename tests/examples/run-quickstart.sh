#!/usr/bin/env bash
# run-quickstart.sh <vantor-test-server> <vantor-quickstart>: runs the
# README's main example against the bundled server; it must join, get the
# answer to its push and exit 0 (under AddressSanitizer: without a leak).
set -euo pipefail
server=$1
quickstart=$2
out=$(mktemp)
trap 'kill "$pid" 2>/dev/null || true; rm -f "$out"' EXIT
"$server" --quiet >"$out" &
pid=$!
for _ in $(seq 100); do
  grep -q 'Serving on' "$out" && break
  sleep 0.1
done
url=$(sed -n 's/^Serving on \([^ ]*\).*/\1/p' "$out")
[ -n "$url" ] || { echo "the server did not start"; exit 1; }
result=$(timeout 60 "$quickstart" "$url")
echo "$result"
grep -qx 'joined' <<<"$result"
grep -q '^answer: ' <<<"$result"
