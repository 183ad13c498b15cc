# Sourced by script/test-caches: starts the Debian of throw-away-root.sh with its own systemd, in namespaces of its own.
#
# The machine has its own processes, mounts, host name, cgroups and a network without an interface. It ends when the
# process $machine ends. The caller needs its own mount namespace with /proc.

machine=      # the process that started the machine
machine_init= # its first process, as seen from here
machine_group=
machine_volumes=() # DEVICE=PATH: mounted there when it boots

# start_machine: boots it, and waits until all units have started.
start_machine() {
  make_group
  : >"$lists/console"
  join_group_and_boot "${machine_volumes[@]}" </dev/null >"$lists/console" 2>&1 &
  machine=$!
  machine_init=$(timeout 10 sh -c "until pgrep -P $machine; do sleep 0.05; done") || die "the machine has no process: $(cat "$lists/console")"
  timeout 60 sh -c "until nsenter --target $machine_init --all test -S /run/systemd/private; do sleep 0.1; done" 2>/dev/null ||
    die "systemd does not start: $(cat "$lists/console")"
  local state
  state=$(in_machine timeout 90 systemctl is-system-running --wait) ||
    die "the machine is $state: $(in_machine systemctl --failed --no-legend)"
}

make_group() {
  mkdir -p "$lists/cgroup"
  mountpoint -q "$lists/cgroup" || mount -t cgroup2 cgroup2 "$lists/cgroup"
  machine_group=$lists/cgroup/kelvane-trial-$(basename "$trial")
  mkdir -p "$machine_group"
}

join_group_and_boot() {
  echo "$BASHPID" >"$machine_group/cgroup.procs"
  exec unshare --mount --propagation private --pid --fork --kill-child --ipc --uts --net --cgroup -- \
    "$BASH" -c '. "$0"; become_machine "$@"' "$root/script/lib/booted-root.sh" "$trial" "$@"
}

# become_machine FOLDER [DEVICE=PATH...]: this process, the first of its namespaces, becomes the systemd of the Debian.
become_machine() {
  local new=$1 node volume
  shift
  set -e
  mount --bind "$new" "$new"
  mount -t proc -o nosuid,nodev,noexec proc "$new/proc"
  mount -t sysfs -o ro,nosuid,nodev,noexec sysfs "$new/sys"
  mount -t cgroup2 -o nosuid,nodev,noexec cgroup2 "$new/sys/fs/cgroup"
  mount -t tmpfs -o mode=0755,size=64M,nosuid,nodev run "$new/run"
  mount -t tmpfs -o mode=1777,size=64M,nosuid,nodev tmp "$new/tmp"
  mount -t tmpfs -o mode=0755,size=1M,nosuid dev "$new/dev"
  mkdir "$new/dev/pts" "$new/dev/shm"
  mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 devpts "$new/dev/pts"
  mount -t tmpfs -o mode=1777,size=16M,nosuid,nodev shm "$new/dev/shm"
  ln -s pts/ptmx "$new/dev/ptmx"
  ln -s /proc/self/fd "$new/dev/fd"
  : >"$new/dev/console"
  for node in null zero full random urandom tty; do
    : >"$new/dev/$node"
    mount --bind "/dev/$node" "$new/dev/$node"
  done
  for volume in "$@"; do mount "${volume%%=*}" "$new${volume#*=}"; done
  hostname kelvane-trial
  mkdir -p "$new/.outside"
  cd "$new"
  pivot_root . .outside
  umount --lazy /.outside
  rmdir /.outside
  # As systemd does at boot: services see later mounts.
  mount --make-rshared /
  exec /usr/bin/env -i container=kelvane-trial PATH=/usr/sbin:/usr/bin:/sbin:/bin /sbin/init systemd.show_status=no
}

in_machine() {
  nsenter --target "$machine_init" --all -- /usr/bin/env -i --chdir=/ PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive "$@" </dev/null
}

# A regular shutdown unmounts its file systems and completes its journal.
reboot_machine() {
  in_machine systemctl --no-block reboot 2>/dev/null # complains about the missing message bus, but reboots
  timeout 60 tail --pid="$machine" -f /dev/null || die "the machine does not shut down"
  wait "$machine" || true # the kernel reports a reboot in a namespace as death by a signal
  start_machine
}

end_machine() {
  if [ -n "$machine" ]; then
    kill -KILL "$machine" 2>/dev/null || true
    wait "$machine" 2>/dev/null || true
    machine=
  fi
  [ -z "$machine_group" ] || remove_group
  if mountpoint -q "$lists/cgroup"; then umount "$lists/cgroup"; fi
}

# The kernel needs a moment to remove the processes from the group.
remove_group() {
  local _
  for _ in $(seq 50); do
    find "$machine_group" -depth -type d -exec rmdir {} + 2>/dev/null || true
    [ -d "$machine_group" ] || return 0
    sleep 0.1
  done
  say "left behind: the control group $machine_group"
}
