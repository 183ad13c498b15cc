#!/bin/sh
# leaving_nothing.sh PROGRAM...: runs it with a folder of its own for temporary files, and fails when something is left in that.
folder=$(mktemp -d) || exit 1
chmod 755 "$folder"  # some tests are other users meanwhile
trap 'rm -rf "$folder"' EXIT
TMPDIR=$folder "$@"
status=$?
left=$(find "$folder" -mindepth 1)
[ -z "$left" ] && exit "$status"
printf 'left behind in the folder for temporary files:\n%s\n' "$left" >&2
exit 1
