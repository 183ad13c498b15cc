# Sourced by the scripts: where the project is, and how they speak.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

failure_status=1  # what `die` ends with

say() { printf '%s\n' "$*"; }
die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit "$failure_status"
}

# quietly FILE COMMAND...: runs it with its output in FILE, and shows the end of that when it fails.
quietly() {
  local log=$1
  shift
  if ! "$@" >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    die "failed: $* (all of its output is in $log)"
  fi
}

# configure_and_build PRESET [TARGET...]
configure_and_build() {
  local preset=$1
  shift
  mkdir -p "$root/build"
  say "building: $preset"
  # A second build of the same sources, wherever they stand, costs little where ccache is there.
  export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1
  local launcher=()
  command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  quietly "$root/build/$preset-configure.log" cmake -S "$root" --preset "$preset" "${launcher[@]}"
  quietly "$root/build/$preset-build.log" cmake --build "$root/build/$preset" --parallel "$(nproc)" ${1:+--target "$@"}
}

# True where a private mount namespace can be made and mounted in: as root, or through a user namespace.
can_mount() {
  local as_user=()
  [ "$(id -u)" = 0 ] || as_user=(--user --map-root-user)
  unshare "${as_user[@]}" --mount sh -c 'mount -t tmpfs none /mnt' 2>/dev/null
}

# True where image files can be mounted as block devices, and a program can serve a file system.
can_loop() { [ "$(id -u)" = 0 ] && losetup --find >/dev/null 2>&1 && [ -c /dev/fuse ]; }

# True where a program can be run as another user, and such a user gets at the project's files.
can_be_others() { setpriv --reuid=65534 --regid=65534 --clear-groups test -x "$root" 2>/dev/null; }
