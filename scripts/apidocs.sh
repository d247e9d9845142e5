#!/usr/bin/env bash
# Builds the API reference (HTML) into build/apidocs from the documented
# public headers; any warning, an undocumented public name included, fails it.
#   scripts/apidocs.sh [OUTPUT_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
# The headers of the reference; every one of them must be public (installed).
REFERENCE=(
  qxmedia/qxmedia.h
  qxmedia/core/QXExport.h
  qxmedia/core/QXErrorCode.h
  qxmedia/core/QXMedia.h
  qxmedia/core/QXTimeFormat.h
  qxmedia/core/QXVersion.h
  qxmedia/platform/foundation/QXError.h
)
out=${1:-build/apidocs}
mkdir -p "$out"
export QX_DOCS_OUT=$out QX_INCLUDE_DIR=$PWD/include
QX_PUBLIC_HEADERS=$(printf "$PWD/include/%s " "${REFERENCE[@]}")
export QX_PUBLIC_HEADERS
doxygen docs/Doxyfile
echo "apidocs: $out/html/index.html"
