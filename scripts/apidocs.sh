#!/usr/bin/env bash
# Builds the API reference (HTML) from the public headers, the ones that are
# installed (the build writes their list when it is configured); any warning,
# an undocumented public name included, fails it.
#   scripts/apidocs.sh [BUILD_DIR] [OUTPUT_DIR]     (defaults: build, BUILD_DIR/apidocs)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
list=$build/public-headers.txt
[[ -s $list ]] || { echo "apidocs: no $list; configure the build first (cmake --preset default)" >&2; exit 1; }
out=${2:-$build/apidocs}
mkdir -p "$out"
export QX_DOCS_OUT=$out QX_INCLUDE_DIR=$PWD/include
QX_PUBLIC_HEADERS=$(sed "s|^|$PWD/include/|" "$list" | tr '\n' ' ')
export QX_PUBLIC_HEADERS
doxygen docs/Doxyfile
echo "apidocs: $out/html/index.html"
