# Sourced by the other scripts. Messages of the scripts go to standard error: standard output is the program's.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

say() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; }
die() { say "$*"; exit 1; }

# The words of a file without its comments and blank lines.
words_of() { sed -e 's/#.*//' "$1" | tr -s ' \t\n' ' '; }

# Configures a preset. CMake refuses a cache of another folder (a checkout that was moved or copied): the preset is then
# configured anew.
configure_preset() {
  local cache=$top/build/$1/CMakeCache.txt home fresh=()
  if [ -f "$cache" ]; then
    home=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$cache")
    [ "$home/CMakeLists.txt" -ef "$top/CMakeLists.txt" ] || fresh=(--fresh)
  fi
  (cd "$top" && cmake --preset "$1" ${fresh[@]+"${fresh[@]}"})
}

# Configures a preset and builds its targets. The output of the build is shown when the build fails, or with TAV_VERBOSE.
# $1: preset; the rest: targets.
build_preset() {
  local preset=$1 log
  shift
  log=$(mktemp) || die "cannot make a temporary file"
  say "building ($preset)"
  if ! { configure_preset "$preset" && cmake --build "$top/build/$preset" --target "$@"; } >"$log" 2>&1 </dev/null; then
    cat "$log" >&2
    rm -f "$log"
    die "the build failed ($preset)"
  fi
  [ -z "${TAV_VERBOSE:-}" ] || cat "$log" >&2
  rm -f "$log"
}
