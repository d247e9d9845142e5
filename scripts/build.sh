#!/usr/bin/env bash
# Installs what is missing, configures and builds. PRESET picks the
# configuration (default, sanitize, tsan, fuzz).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
preset=${PRESET:-default}
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
