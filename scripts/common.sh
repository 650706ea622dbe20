# Sourced by the other scripts. Their own words go to standard error: standard output is the program's.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

say() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; }
die() { say "$*"; exit 1; }

# The words of a file without its comments and blank lines.
words_of() { sed -e 's/#.*//' "$1" | tr -s ' \t\n' ' '; }

# Configures a preset when it is not, or when its cache came from elsewhere, and builds it. What the build
# prints is shown only when it fails, unless TAV_VERBOSE is set. $1: preset; the rest: targets.
build_preset() {
  local preset=$1 log
  shift
  log=$(mktemp) || die "cannot make a temporary file"
  say "building ($preset)"
  if ! { cd "$top" && cmake --preset "$preset" && cmake --build "build/$preset" --target "$@"; } >"$log" 2>&1 </dev/null; then
    cat "$log" >&2
    rm -f "$log"
    die "the build failed ($preset)"
  fi
  [ -z "${TAV_VERBOSE:-}" ] || cat "$log" >&2
  rm -f "$log"
}
