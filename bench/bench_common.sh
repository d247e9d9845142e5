# Sourced by the bench scripts: checks that the tools a bench runs exist and
# gives it a work folder (WORK, kept when the caller set it, else a
# temporary one removed at exit).

# require NAME TOOL...: stops the bench with exit 2 when a tool is missing.
require() {
  local bench=$1; shift
  local tool
  for tool in "$@"; do
    command -v "$tool" >/dev/null || { echo "$bench: $tool not found" >&2; exit 2; }
  done
}

work_folder() {
  if [ -n "${WORK:-}" ]; then
    mkdir -p "$WORK"
  else
    WORK=$(mktemp -d)
    trap 'rm -rf "$WORK"' EXIT
  fi
}
