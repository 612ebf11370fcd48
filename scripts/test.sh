#!/usr/bin/env bash
# Installs what is missing, builds the release preset and runs every test:
# the unit tests and the end-to-end suites (registered with CTest).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh release
ctest --preset release --output-on-failure -j 2 "$@"
