# Sourced by script/demo: real tools fill caches, the ready-made services free them when the volume runs low, and the
# tools still work.
#
# It must not touch a cache of this machine. So in the private root /etc/passwd lists one user, whose home is on the
# demonstration's volume, and the definitions in use are those of the three tools. A file's status change time cannot be
# set, so kelvane-caches is shown a clock that is 90 days ahead instead.

holders=(ccache pip-wheels thumbnails)
demo_user=1000
home= caches_clock=()

caches_act() {
  [ "$inside" = mounted ] && is_root_of_machine || {
    say "the ready-made services are not shown: they need root, to work for a user, and a volume of their own"
    return 0
  }
  home=$volume/home
  make_user
  clock_ahead
  say ""
  say "real caches, made by real tools, in the home of the user demo on $volume:"
  say ""
  use_ccache
  use_pip
  use_thumbnailer
  cache_sizes >"$work/before"
  column -t "$work/before"
  start_ready_made_services
  say ""
  say "90 days later: what could go"
  ahead "$bin/kelvanectl" caches
  run_low
  tools_go_on
}

# --- the user ---

make_user() {
  mkdir -p "$home" "$work/sources"
  chmod 755 "$work"
  printf 'root:x:0:0:root:/root:/bin/sh\ndemo:x:%s:%s:demo:%s:/bin/sh\n' $demo_user $demo_user "$home" >"$work/passwd"
  chmod 644 "$work/passwd"
  mount --bind "$work/passwd" /etc/passwd
  chown $demo_user:$demo_user "$home" "$work/sources"
}

# A user namespace in which an ordinary user became root has no second user.
is_root_of_machine() { [ "$(awk '{ print $3; exit }' /proc/self/uid_map)" -gt 1 ]; }

as_demo() {
  (cd "$work/sources" && exec setpriv --reuid $demo_user --regid $demo_user --clear-groups \
    env -i HOME="$home" PATH=/usr/bin:/bin LC_ALL=C.UTF-8 PYTHONDONTWRITEBYTECODE=1 "$@")
}

# --- the tools ---

# Tables of random numbers, so that compression does not shrink the compiled results.
use_ccache() {
  as_demo python3 - <<'PYTHON'
import os, pathlib
project = pathlib.Path("project")
project.mkdir()
for i in range(8):
    numbers = ",".join(map(str, os.urandom(300_000)))
    (project / f"table{i}.c").write_text(f"const unsigned char table{i}[] = {{{numbers}}};\n")
PYTHON
  compile_project
}

compile_project() {
  as_demo sh -ec 'for source in project/*.c; do ccache gcc -c "$source" -o "${source%.c}.o"; done'
}

use_pip() {
  as_demo python3 - <<'PYTHON'
import io, os, tarfile
for name in "maps", "voices":
    setup = f'from setuptools import setup\nsetup(name="{name}", version="1.0", packages=["{name}"], ' \
            f'package_data={{"{name}": ["data"]}})\n'
    with tarfile.open(f"{name}-1.0.tar.gz", "w:gz") as archive:
        data = os.urandom(4_000_000)
        for path, content in ("setup.py", setup.encode()), (f"{name}/__init__.py", b""), (f"{name}/data", data):
            member = tarfile.TarInfo(f"{name}-1.0/{path}")
            member.size = len(content)
            archive.addfile(member, io.BytesIO(content))
PYTHON
  build_wheels
}

build_wheels() {
  as_demo python3 -m pip --quiet --disable-pip-version-check wheel --no-index --no-deps --no-build-isolation \
    --wheel-dir wheels "./maps-1.0.tar.gz" "./voices-1.0.tar.gz"
}

# File managers name a thumbnail by the checksum of the picture's address.
use_thumbnailer() {
  as_demo python3 - <<'PYTHON'
import os, pathlib
pictures = pathlib.Path("pictures")
pictures.mkdir()
for i in range(10):
    (pictures / f"{i}.ppm").write_bytes(b"P6 640 480 255\n" + os.urandom(640 * 480 * 3))
PYTHON
  make_thumbnails
}

make_thumbnails() {
  as_demo sh -ec '
    mkdir -p ~/.cache/thumbnails/x-large
    for picture in pictures/*.ppm; do
      name=$(printf "file://%s/%s" "$PWD" "$picture" | md5sum | cut -c 1-32)
      gdk-pixbuf-thumbnailer -s 512 "$picture" ~/".cache/thumbnails/x-large/$name.png"
    done'
}

cache_sizes() {
  printf 'Cache Files Size\n'
  size_of ccache "$home/.cache/ccache"
  size_of pip-wheels "$home/.cache/pip/wheels"
  size_of thumbnails "$home/.cache/thumbnails"
}
size_of() { echo "$1" "$(find "$2" -type f | wc -l)" "$(du -sh "$2" | cut -f 1)"; }

# --- the services ---

clock_ahead() {
  caches_clock=(LD_PRELOAD="$(dpkg -L libfaketime | grep '/libfaketime\.so')" FAKETIME=+90d FAKETIME_DONT_FAKE_MONOTONIC=1)
}
ahead() { env "${caches_clock[@]}" "$@"; }

# Like systemd: the sockets are open, and the first call on one of them starts the program.
start_ready_made_services() {
  local name sockets=() setting settings=()
  mkdir -p "$CONFIGURATION_DIRECTORY/caches.d"
  for name in "${holders[@]}"; do
    install -m 644 "$root/caches/definitions/$name.toml" "$CONFIGURATION_DIRECTORY/caches.d"
    sed "s/@holder@/$name/" "$root/packaging/caches/descriptor.plist.in" \
      >"/System/Library/Kelvane/com.orvel.kelvane.caches.$name.plist"
    sockets+=(--listen "$RUNTIME_DIRECTORY/services/com.orvel.kelvane.caches.$name")
  done
  for setting in "${caches_clock[@]}" CONFIGURATION_DIRECTORY="$CONFIGURATION_DIRECTORY" \
    RUNTIME_DIRECTORY="$RUNTIME_DIRECTORY"; do settings+=(-E "$setting"); done
  systemd-socket-activate "${sockets[@]}" --fdname="$(IFS=:; echo "${holders[*]}")" "${settings[@]}" \
    "$bin/kelvane-caches" >"$work/caches.log" 2>&1 &
  pids+=("$!")
  KELVANE_LOW_SPACE=12M "$bin/kelvaned" >"$work/kelvaned.log" 2>&1 &
  pids+=("$!")
}

run_low() {
  say ""
  say "a film fills the volume: 4 MiB are left, and the daemon calls a volume low that has less than 12 MiB"
  head -c $(($(free_space) - (4 << 20))) /dev/zero >"$volume/film"
  local last=$((SECONDS + 20))
  until all_have_given || [ $SECONDS -ge $last ]; do sleep 0.1; done
  all_have_given || {
    tail -n 5 "$work/caches.log" "$work/kelvaned.log" >&2
    fail "not every cache was purged"
  }
  say ""
  sed -n 's/^kelvane-caches: \(.* freed .*\)/\1/p' "$work/caches.log" | sed "s|$volume/home|~|; s/; .*//"
  say ""
  cache_sizes | sed '1s/.*/- Left Size/' | paste -d ' ' "$work/before" - | awk '{ print $1, $2, $3, $5, $6 }' | column -t
}

all_have_given() {
  local name
  for name in "${holders[@]}"; do grep -q "$name: freed" "$work/caches.log" || return 1; done
}

tools_go_on() {
  rm "$volume/film"
  say ""
  say "the film is deleted, and each tool is run again:"
  compile_project || fail "ccache does not compile any more"
  build_wheels || fail "pip builds no wheels any more"
  make_thumbnails || fail "no thumbnails can be made any more"
  say ""
  cache_sizes | column -t
}
