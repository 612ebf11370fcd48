#!/usr/bin/env bash
# Configures and builds one preset (default: release). Usage: scripts/build.sh [debug|release]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-release}"
extra=()
if [ "${CI:-}" = "true" ]; then extra+=(-DZARNU_WERROR=ON); fi
cmake --preset "$preset" "${extra[@]}" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
