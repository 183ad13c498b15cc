#!/usr/bin/env bash
# Runs a command where it may mount volumes and write at "/", and nobody else sees either.
#
#   script/lib/private-root.sh [--volume PATH=SIZE]... [--] COMMAND [ARGUMENT...]
#
# The root is an empty file system in memory with all that is in the machine's root bound into it, except for
# /System/Library/Kelvane and /OrvelInternal/Library/Kelvane, which are new and empty, and the volumes: each a new
# file system in memory, of SIZE such as 64M, mounted at PATH, whose first name must not be of use to the command.
# All of it goes with the last process in it. The command has this process's id.
#
# Root needs to be allowed to mount; others become root in a user namespace of their own.
set -euo pipefail
PATH=$PATH:/usr/sbin:/sbin  # chroot is there, which others than root have no path to

if [ "${1:-}" != --inside ]; then
  as_user=()
  [ "$(id -u)" = 0 ] || as_user=(--user --map-root-user)
  exec unshare "${as_user[@]}" --mount --propagation private -- "${BASH_SOURCE[0]}" --inside "$@"
fi
shift

volumes=()
while [ $# -gt 0 ]; do
  case $1 in
    --volume)
      volumes+=("$2")
      shift 2
      ;;
    --)
      shift
      break
      ;;
    *) break ;;
  esac
done
[ $# -gt 0 ] || {
  sed -n '2,12s/^# \{0,1\}//p' "${BASH_SOURCE[0]}" >&2
  exit 2
}

own=(/System /OrvelInternal)
for volume in "${volumes[@]}"; do
  first=${volume#/}
  own+=("/${first%%[/=]*}")
done
is_own() {
  local name
  for name in "${own[@]}"; do [ "$1" != "$name" ] || return 0; done
  return 1
}

# The new root is built on /dev/shm, which every machine has, and goes from there once /dev is bound.
here=$PWD
new=/dev/shm
cd /
mount -t tmpfs -o mode=0755 kelvane-root $new
mkdir $new/dev
mount --rbind /dev $new/dev
umount "$new/$new"
shopt -s dotglob nullglob
for entry in /*; do
  if is_own "$entry" || [ "$entry" = /dev ]; then
    continue
  elif [ -L "$entry" ]; then
    cp -P "$entry" "$new$entry"
  elif [ -d "$entry" ]; then
    mkdir "$new$entry"
    mount --rbind "$entry" "$new$entry"
  fi
done
mkdir -p $new/System/Library/Kelvane $new/OrvelInternal/Library/Kelvane
for volume in "${volumes[@]}"; do
  mkdir -p "$new${volume%%=*}"
  mount -t tmpfs -o "size=${volume#*=},mode=0755" kelvane-volume "$new${volume%%=*}"
done
exec chroot $new "$BASH" -c 'cd "$0" && exec "$@"' "$here" "$@"
