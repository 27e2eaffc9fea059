# Systems of other releases of Debian, for the scripts that try things there: folders that the archive fills which this
# machine's apt names, and that commands enter on this machine's kernel. Sourced behind lib.sh, never run.
#
# The script works in the folder $home. It first calls prepare_systems, then itself with run_inside, and only there
# make_system and run_in_system. When it sources this file there, $home and $deadline are set already.

system_cache=${RAVOK_CACHE_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/ravok}/systems

# in_time COMMAND...: runs a command that asks the archive, and ends it and its children when they have had their time.
in_time() {
  local left=$((deadline - $(date +%s)))
  timeout --signal=KILL $((left > 0 ? left : 1)) "$@"
}

# can_enter_systems: whether this machine lets this user mount and enter systems.
can_enter_systems() {
  unshare --mount-proc --pid --fork --kill-child sh -c 'mount --rbind /sys /sys && mount --rbind /dev /dev &&
    mount -t tmpfs tmpfs /dev/shm && exec chroot --userspec=1000:1000 / true' 2>/dev/null
}

# prepare_systems SECONDS: makes the folder $home, which goes when the script ends, and installs what makes systems. From
# now on all that asks the archive has so much time together. Returns 1 when that cannot be done.
prepare_systems() {
  local install=(env DEBIAN_FRONTEND=noninteractive apt-get install --yes --no-install-recommends mmdebstrap)
  home=$(mktemp -d) || return 1
  trap remove_home EXIT
  chmod 755 "$home"
  printf '%s;\n' 'Acquire::http::Timeout "20"' 'Acquire::https::Timeout "20"' 'Acquire::Retries "1"' >"$home/apt.conf"
  apt-config dump | grep -E '^Acquire::https?::Proxy' >>"$home/apt.conf" || true
  deadline=$(($(date +%s) + $1))
  ! command -v mmdebstrap >/dev/null || return 0
  # Only what comes over the network may be broken off.
  (
    export APT_CONFIG=$home/apt.conf
    in_time apt-get update && in_time "${install[@]}" --download-only && "${install[@]}" --no-download
  ) >"$root/build/mmdebstrap.log" 2>&1 || {
    tail -n 5 "$root/build/mmdebstrap.log" >&2
    return 1
  }
}

# run_inside COMMAND...: runs a command with spaces of processes and mounts of its own. They end with it, and it ends with
# this script, however that ends: so no server and no mount is left behind.
run_inside() {
  local code=0
  setpriv --pdeathsig KILL unshare --mount-proc --pid --fork --kill-child "$@" &
  inside=$!
  wait "$inside" || code=$?
  inside=
  return "$code"
}

remove_home() {
  [ -z "${inside:-}" ] || { kill -KILL "$inside" && wait "$inside"; } 2>/dev/null || true
  # What has just been ended may still write for a moment.
  for _ in {1..100}; do
    rm -rf "${home:?}" "$system_cache/${home##*/}" 2>/dev/null && return
    sleep 0.1
  done
  printf '%s could not be removed.\n' "$home" >&2
}

archive_address() { # archive_address: that of this machine's apt
  apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Origin: Debian' 'Label: Debian' 2>/dev/null | head -n 1
}

# make_system SUITE FOLDER NAME [PACKAGE...]: puts a system of the suite into a new folder: Debian's essential packages,
# and these. It comes from the cache where one of this name with these packages is there. Returns 1 when it cannot be
# had.
make_system() {
  local suite=$1 folder=$2 name=$3 kept=$system_cache/$3.tar archive include=()
  shift 3
  [ $# -eq 0 ] || include=(--include="$*")
  mkdir -p "$system_cache"
  if [ ! -f "$kept" ] || [ "$*" != "$(cat "$system_cache/$name.packages" 2>/dev/null)" ]; then
    archive=$(archive_address)
    if [ -z "$archive" ]; then
      APT_CONFIG=$home/apt.conf in_time apt-get update >"$system_cache/$name.log" 2>&1 || true
      archive=$(archive_address)
    fi
    [ -n "$archive" ] || {
      printf "This machine's apt names no Debian archive. Run apt-get update once.\n" >&2
      return 1
    }
    # With mounts of its own, which end with it: its folder is removed from outside.
    in_time unshare --mount-proc --pid --fork --kill-child env TMPDIR="$home" mmdebstrap --variant=essential \
      "${include[@]}" --aptopt="$home/apt.conf" "$suite" "$home/system.tar" "$archive" --format=tar \
      >"$system_cache/$name.log" 2>&1 || {
      tail -n 5 "$system_cache/$name.log" >&2
      return 1
    }
    # The cache may lie on another disk. The list of the packages comes last, and never stands beside another system.
    { rm -f "$system_cache/$name.packages" && mv "$home/system.tar" "$system_cache/${home##*/}" &&
      sync "$system_cache/${home##*/}" && mv "$system_cache/${home##*/}" "$kept" && printf '%s\n' "$*" >"$system_cache/$name.packages"; } || return 1
  fi
  mkdir "$folder"
  tar --extract --file "$kept" --directory "$folder" --numeric-owner --exclude './dev/*' || {
    # One that was damaged is made again the next time.
    tar --list --file "$kept" >/dev/null 2>&1 || rm -f "$kept" "$system_cache/$name.packages"
    return 1
  }
}

# run_in_system FOLDER USER HOME COMMAND...: runs a command in a system as a user, given as UID:GID, in the user's home.
# It has this machine's kernel and devices, a shared memory of its own, and nothing of this machine's environment. What
# was mounted for it and what it started end with it.
run_in_system() {
  unshare --mount --pid --fork --kill-child sh -c '
    set -e
    system=$0 user=$1 home=$2
    shift 2
    # Its root is a mount point, like that of any system.
    mount --bind "$system" "$system"
    mount -t proc proc "$system/proc"
    mount --rbind /sys "$system/sys"
    mount --rbind /dev "$system/dev"
    mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs "$system/dev/shm"
    exec chroot --userspec="$user" "$system" /usr/bin/env -i HOME="$home" USER="${home##*/}" LANG=C.UTF-8 \
      PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
      /bin/sh -c "cd \"\$HOME\" && exec \"\$@\"" sh "$@"' "$@"
}
