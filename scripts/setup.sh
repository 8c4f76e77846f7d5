#!/usr/bin/env bash
# Installs what the build, the tests and the demos need on Debian 12, and
# nothing that is already there. Safe to run again.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  build-essential cmake ninja-build pkg-config
  libboost1.81-all-dev libboost-json1.81-dev libboost-url1.81-dev libssl-dev openssl libspdlog-dev
  libgtest-dev libgmock-dev libbenchmark-dev ccache
)
# Extra packages that parts of the tree ask for (one name a line).
for extra in scripts/packages.d/*.txt; do
  [ -e "$extra" ] || continue
  while read -r name; do
    [ -n "$name" ] && [ "${name:0:1}" != "#" ] && packages+=("$name")
  done < "$extra"
done

missing=()
for name in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$name" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$name")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  if ! $sudo apt-get install -y --no-install-recommends "${missing[@]}"; then
    $sudo apt-get update
    $sudo apt-get install -y --no-install-recommends "${missing[@]}"
  fi
fi

# Steps that parts of the tree add (for example npm packages for tests).
for step in scripts/setup.d/*.sh; do
  [ -e "$step" ] || continue
  bash "$step"
done
