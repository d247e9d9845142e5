#!/usr/bin/env bash
# Set-up, build and the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
ctest --preset "${PRESET:-default}" -j2 "$@"
