# Sourced by script/test-caches: an ext4 file system with old files. Only the kernel sets a file's status-change
# time, so debugfs sets it in the image.

volume_image=
volume_device=

# make_aged_volume IMAGE SIZE FILL DAYS PATH...: FILL is called with the mount point of the new file system and makes its
# content; everything below the PATHs is then DAYS old.
make_aged_volume() {
  local image=$1 size=$2 fill=$3 days=$4 mounted
  shift 4
  volume_image=$image
  truncate --size "$size" "$image"
  mke2fs -q -F -t ext4 -m 0 "$image"
  mounted=$image.mounted
  mkdir -p "$mounted"
  mount -o loop "$image" "$mounted"
  "$fill" "$mounted"
  (cd "$mounted" && find "$@" -type f) >"$image.files"
  umount "$mounted"
  rmdir "$mounted"
  age_files "$image" "$days" "$image.files"
  volume_device=$(losetup --find --show "$image")
}

# age_files IMAGE DAYS LIST: LIST holds paths without spaces.
age_files() {
  local then file field
  then=$(date -u -d "$2 days ago" +%Y%m%d%H%M%S)
  while read -r file; do
    for field in atime mtime ctime; do echo "set_inode_field /$file $field $then"; done
  done <"$3" >"$1.commands"
  debugfs -w -f "$1.commands" "$1" >"$1.log" 2>&1
  ! grep -v '^debugfs' "$1.log" || die "the files of $1 cannot be made older"
}

remove_aged_volume() {
  if [ -n "$volume_device" ]; then losetup --detach "$volume_device"; fi
  rm -f "$volume_image" "$volume_image".*
}
