#!/usr/bin/env bash
# Set-up, build and the whole test suite. A test that fails is run once more
# before the run counts it as failed: one subtitle end-to-end case loses a
# line now and then on a loaded machine, and is being looked into. Its first
# failure still shows in the output.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
ctest --preset "${PRESET:-default}" -j2 --repeat until-pass:2 "$@"
