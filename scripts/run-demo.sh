#!/usr/bin/env bash
# Runs the realtime demo. With URL set it is the interactive client for that
# server; TOPIC, EVENT and PARAMS ("k=v k2=v2") go with it. ARGS are passed as
# they are.
set -euo pipefail
cd "$(dirname "$0")/.."
args=()
if [ -n "${URL:-}" ]; then
  args+=(--url "$URL")
  [ -n "${TOPIC:-}" ] && args+=(--topic "$TOPIC")
  [ -n "${EVENT:-}" ] && args+=(--event "$EVENT")
  for p in ${PARAMS:-}; do args+=(--param "$p"); done
fi
# shellcheck disable=SC2086
exec build/normal/demo/realtime/vantor-demo "${args[@]}" ${ARGS:-}
