#!/bin/sh
# vxadmin makes its data directory, mode 0700, where --data, VXQM_DATA,
# XDG_STATE_HOME or HOME (in that order) put it.
#
#   check_data_dir.sh VXADMIN
set -eu
vxadmin=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/home"

expect_dir() {
  [ -d "$1" ] || { echo "not made: $1"; exit 1; }
  mode=$(stat -c %a "$1")
  [ "$mode" = 700 ] || { echo "mode $mode, not 700: $1"; exit 1; }
}
expect_none() {
  [ ! -e "$1" ] || { echo "made, but should not be: $1"; exit 1; }
}

env -u VXQM_DATA -u XDG_STATE_HOME HOME="$work/home" "$vxadmin" ping > /dev/null
expect_dir "$work/home/.local/state/vxai"

env -u VXQM_DATA XDG_STATE_HOME="$work/state" HOME="$work/home" "$vxadmin" ping > /dev/null
expect_dir "$work/state/vxai"

VXQM_DATA="$work/from-env" XDG_STATE_HOME="$work/state2" "$vxadmin" ping > /dev/null
expect_dir "$work/from-env"
expect_none "$work/state2"

VXQM_DATA="$work/env-unused" "$vxadmin" --data "$work/a/b/c" ping > /dev/null
expect_dir "$work/a/b/c"
expect_dir "$work/a"
expect_none "$work/env-unused"

# A file where the directory should be is a failure with its reason.
: > "$work/file"
if "$vxadmin" --data "$work/file" ping 2> "$work/err"; then
  echo "a file was taken as the data directory"; exit 1
fi
grep -q "data directory $work/file: not a directory" "$work/err" || { cat "$work/err"; exit 1; }

# Help alone makes nothing.
env -u VXQM_DATA XDG_STATE_HOME="$work/state3" "$vxadmin" --help > /dev/null
expect_none "$work/state3"
echo "data directories: as expected"
