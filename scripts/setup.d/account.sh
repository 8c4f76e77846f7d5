#!/usr/bin/env bash
# Installs the pinned npm packages of the account sign-in end-to-end test (a
# local OpenID provider and the headless-browser driver). Quick when the
# installed tree already matches the lock file.
set -euo pipefail
cd "$(dirname "$0")/../../tests/account/e2e"
stamp=node_modules/.installed-from-lock
if [ -f "$stamp" ] && cmp -s package-lock.json "$stamp"; then
  exit 0
fi
echo "setup: installing the sign-in test's npm packages"
npm ci --no-audit --no-fund --loglevel=error
cp package-lock.json "$stamp"
