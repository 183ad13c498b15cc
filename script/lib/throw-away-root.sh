# Sourced by script/test-package and script/test-caches: makes a Debian system in a directory, and lists its changes.

suite=bookworm
trial=
lists=

# go_inside COMMAND...: this process becomes it, in the Debian and with nothing of this environment.
go_inside() {
  exec chroot "$trial" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}
go_inside_as_daemon() {
  go_inside setpriv --reuid kelvane --regid kelvane-daemon --clear-groups --no-new-privs -- "$@"
}
inside() { (go_inside "$@"); }
as_daemon() { (go_inside_as_daemon "$@"); }

# make_root PACKAGE...: unpacks a Debian system with an init and all dependencies of the packages, from an archive that
# the first call makes.
make_root() {
  local needed archive
  needed=$(needed_by "$@")
  archive=$root/build/debian-$suite-$(printf %s "$needed" | md5sum | cut -c 1-8).tar
  [ -f "$archive" ] || make_archive "$archive" "$needed"
  trial=$(mktemp -d "$root/build/trial-XXXXXX")
  lists=$trial.lists
  mkdir "$lists"
  tar -C "$trial" -xf "$archive"
  chmod 755 "$trial"
  mount -t proc proc "$trial/proc"
  # As in an image that is being made: nothing may be started.
  printf '#!/bin/sh\nexit 101\n' >"$trial/usr/sbin/policy-rc.d"
  chmod 755 "$trial/usr/sbin/policy-rc.d"
}

# needed_by PACKAGE...: the dependencies of the files, except each other, separated by commas.
needed_by() {
  local one names=()
  for one in "$@"; do names+=(-e "$(dpkg --field "$one" Package)"); done
  {
    echo systemd-sysv
    for one in "$@"; do dpkg --field "$one" Depends | sed 's/([^)]*)//g; s/|[^,]*//g; s/ //g' | tr , '\n'; done
  } | sort -u | grep -vxF "${names[@]}" | paste -s -d ,
}

make_archive() {
  local archive=$1 needed=$2 bare
  bare=$(mktemp -d "$root/build/debootstrap-XXXXXX")
  quietly "$root/build/debootstrap.log" timeout 900 debootstrap --variant=minbase --include="$needed" "$suite" "$bare" \
    ${DEBIAN_MIRROR:+"$DEBIAN_MIRROR"}
  rm -rf "$bare/var/cache/apt/archives/"*.deb
  tar -C "$bare" --exclude './proc/*' --exclude './sys/*' -cf "$archive.part" .
  mv "$archive.part" "$archive"
  rm -rf "$bare"
}

remove_root() {
  umount "$trial/proc"
  rm -rf --one-file-system "$trial" "$lists"
}

# install_package PACKAGE...: installs all at once, because they depend on each other.
install_package() {
  mkdir "$trial/packages"
  cp "$@" "$trial/packages"
  inside dpkg --install --recursive /packages
  rm -r "$trial/packages"
  [ -z "$(inside dpkg --audit)" ] || die "dpkg is not content"
}

# snapshot NAME: every file with its type, mode, owner and content, a line each that ends with its path.
snapshot() {
  inside find / -path /proc -prune -o -type f -printf '%y %m %u:%g ' -exec md5sum -z {} \; -printf '\n' -o \
    -printf '%y %m %u:%g - %p -> %l\n' | tr -d '\0' | sed 's/ -> $//' | sort -k 5 >"$lists/$1"
}

# show_difference BEFORE AFTER PATTERN...: prints what is new (+), gone (-) and other (=), and dies of whatever no
# PATTERN allows. A PATTERN is a glob for "SIGN PATH", and may go on with "|REASON"; a lone * allows everything.
show_difference() {
  local before=$lists/$1 after=$lists/$2 line sign path pattern reason known=yes
  shift 2
  while IFS= read -r line; do
    sign=${line%% *} path=/${line#*/}
    reason=
    for pattern in "$@"; do
      # shellcheck disable=SC2254  # it is a pattern
      case "$sign $path" in ${pattern%%|*}) reason=${pattern#*|} ;; esac
      [ -z "$reason" ] || break
    done
    [ -n "$reason" ] || known=
    printf '%s%s\n' "$line" "$(comment_on "$reason")"
  done < <(join_lists "$before" "$after")
  [ -n "$known" ] || die "there are differences without a reason"
}

comment_on() {
  case $1 in
    '') printf '   <-- WITHOUT A REASON' ;;
    '*') ;;
    *) printf '   (%s)' "$1" ;;
  esac
}

# SIGN MODE OWNER PATH of what differs between two snapshots.
join_lists() {
  awk '
    function path(line) { sub(/^[^ ]* [^ ]* [^ ]* [^ ]* +/, "", line); return line }
    function shown(sign, line, parts) {
      split(line, parts, " ")
      return sprintf("%s %s%04d %-20s %s", sign, parts[1], parts[2], parts[3], path(line))
    }
    NR == FNR { was[path($0)] = $0; next }
    { now[path($0)] = 1 }
    !(path($0) in was) { print shown("+", $0); next }
    was[path($0)] != $0 { print shown("=", $0) }
    END { for (p in was) if (!(p in now)) print shown("-", was[p]) }
  ' "$1" "$2" | sort -b -k 4
}

# The daemon makes files of its own beside those of root, and cannot put others in the place of those.
try_folders() {
  as_daemon touch /run/kelvane/metrics.prom
  as_daemon rm /run/kelvane/metrics.prom
  local refused
  for refused in "mv /run/kelvane/services /run/kelvane/mine" "touch /run/kelvane/services/com.example.cache" \
    "chmod 777 /run/kelvane" "mkdir /System/Library/mine" "touch /etc/kelvane/services.d/mine.plist"; do
    # shellcheck disable=SC2086  # words
    if as_daemon $refused 2>/dev/null; then die "the daemon's user may: $refused"; fi
    say "refused: $refused"
  done
}

descriptor() {
  printf '<plist version="1.0"><dict><key>KELVANE_ID</key><string>%s</string>' "$1"
  printf '<key>KELVANE_DO_NOT_QUERY</key><true/></dict></plist>\n'
}

# It reads descriptors through both links and the device mode through the third, answers the daily call as the daily
# unit makes it, and ends with status 0.
try_daemon() {
  local log=$lists/log daemon call
  descriptor com.example.of-a-package >"$trial/usr/lib/kelvane/services.d/test.plist"
  descriptor com.example.of-the-administrator >"$trial/etc/kelvane/services.d/test.plist"
  install -d -m 0700 -o "$(inside id -u kelvane)" -g "$(inside id -g kelvane)" "$trial/var/lib/kelvane"
  : >"$log"
  go_inside_as_daemon env KELVANE_LOG_LEVEL=5 /usr/libexec/kelvaned 2>"$log" &
  daemon=$!
  timeout 30 grep -q -m 1 'open for business' <(exec tail -n +1 -f --pid=$daemon "$log") || die "it did not start: $(cat "$log")"
  read -r -a call < <(sed -n 's/^ExecStart=//p' "$trial/lib/systemd/system/kelvane-daily.service")
  as_daemon "${call[@]}" || die "the daily call failed: $(cat "$log")"
  kill "$daemon"
  wait "$daemon" || die "it ended with $?"
  rm "$trial/usr/lib/kelvane/services.d/test.plist" "$trial/etc/kelvane/services.d/test.plist"
  expect_in_log "$log" "marking com.example.of-a-package as DO_NOT_QUERY"
  expect_in_log "$log" "marking com.example.of-the-administrator as DO_NOT_QUERY"
  ! grep 'Unable to get symbols' "$log" || die "the device-mode library was not found"
  say "the daily call was answered, and the device-mode library is there"
}

expect_in_log() {
  grep -q "$2" "$1" || die "it did not say \"$2\": $(cat "$1")"
  say "said: $2"
}
