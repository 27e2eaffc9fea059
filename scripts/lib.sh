# What the scripts share. Sourced, never run.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root

step() { printf '\n== %s\n' "$*"; }

fail() {
  printf '%s: %s\n' "$(basename "$0")" "$1" >&2
  shift
  for line in "$@"; do printf '  %s\n' "$line" >&2; done
  exit 1
}

# Runs a command as user 0, with sudo where the user is another.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    fail "installing packages needs user 0." "Run again as root, or install sudo."
  fi
}

# Configures, where that is still to be done, and builds one preset.
build_preset() {
  mkdir -p "$root/build"
  [ -f "$root/build/$1/build.ninja" ] || (cd "$root" && cmake --preset "$1" >"$root/build/$1-configure.log" 2>&1) || {
    cat "$root/build/$1-configure.log" >&2
    fail "configuring the preset $1 failed."
  }
  (cd "$root" && cmake --build --preset "$1")
}
