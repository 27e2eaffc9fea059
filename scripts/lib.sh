# What the scripts share. Sourced, never run.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root

# number_steps [WORD...]: from now on each step is shown with its number and the time since the script was started. All
# the steps of the script are lines that begin with `step`, or with a WORD that calls it once.
number_steps() {
  local words=step
  [ $# -eq 0 ] || words=$(IFS='|' && printf 'step|%s' "$*")
  step_total=$(grep -cE "^($words) " "$0")
  step_number=0
}

step() {
  if [ -z "${step_total:-}" ]; then
    printf '\n== %s\n' "$*"
  else
    step_number=$((step_number + 1))
    printf '\n== [%d/%d] %s (after %d:%02d)\n' "$step_number" "$step_total" "$*" $((SECONDS / 60)) $((SECONDS % 60))
  fi
}

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

# build_libraries PRESET: builds the third-party libraries of one preset, where that is still to be done.
build_libraries() {
  if [ "$1" = portable ]; then
    "$root/third_party/build" --portable >/dev/null
  else
    "$root/third_party/build" >/dev/null
  fi
}

# programs_of FOLDER: prints the names of the programs that a build in this folder installs, one a line.
programs_of() {
  sed -n 's/^RAVOK_PROGRAMS:INTERNAL=//p' "$1/CMakeCache.txt" | tr ';' '\n'
}

# has_windows FOLDER: whether a build in this folder makes the programs with a window.
has_windows() {
  programs_of "$1" | grep -qx ravok-install-gui
}

# build_preset PRESET [TARGET...]: configures, where that is still to be done, and builds one preset, or these targets of
# it. Says how far it is on a terminal only.
build_preset() {
  local preset=$1 quiet=()
  shift
  [ -t 1 ] || quiet=(-- --quiet)
  mkdir -p "$root/build"
  [ -f "$root/build/$preset/build.ninja" ] || (cd "$root" && cmake --preset "$preset" >"$root/build/$preset-configure.log" 2>&1) || {
    cat "$root/build/$preset-configure.log" >&2
    fail "configuring the preset $preset failed."
  }
  (cd "$root" && cmake --build --preset "$preset" ${1:+--target "$@"} "${quiet[@]}")
}
