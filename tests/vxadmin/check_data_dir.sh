#!/bin/sh
# vxadmin makes its data directory, mode 0700, where --data, VXQM_DATA,
# XDG_STATE_HOME or HOME (in that order) put it, and says so.  A directory
# the user names is made one level deep only; the default one with its
# parents.  A queue manager's name never makes a path.
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

env -u VXQM_DATA -u XDG_STATE_HOME HOME="$work/home" "$vxadmin" ping > /dev/null 2>&1
expect_dir "$work/home/.local/state/vxai"

env -u VXQM_DATA XDG_STATE_HOME="$work/state" HOME="$work/home" "$vxadmin" ping > /dev/null 2>&1
expect_dir "$work/state/vxai"

VXQM_DATA="$work/from-env" XDG_STATE_HOME="$work/state2" "$vxadmin" ping > /dev/null 2>&1
expect_dir "$work/from-env"
expect_none "$work/state2"

VXQM_DATA="$work/env-unused" "$vxadmin" --data "$work/a" ping > /dev/null 2> "$work/err"
expect_dir "$work/a"
expect_none "$work/env-unused"
grep -qx "vxadmin: made the data directory $work/a" "$work/err" || { cat "$work/err"; exit 1; }
grep -qx "vxadmin: made queue manager QM1 in $work/a" "$work/err" || { cat "$work/err"; exit 1; }
# The second time, nothing is made and nothing is said.
"$vxadmin" --data "$work/a" ping > /dev/null 2> "$work/err"
[ ! -s "$work/err" ] || { cat "$work/err"; exit 1; }
# A mistyped --qmgr is seen at once.
"$vxadmin" --data "$work/a" --qmgr qm1 ping > /dev/null 2> "$work/err"
grep -qx "vxadmin: made queue manager qm1 in $work/a" "$work/err" || { cat "$work/err"; exit 1; }

# A deep path that is not there is refused, and nothing of it is made.
for named in "--data $work/deep/b/c" ""; do
  if [ -n "$named" ]; then
    "$vxadmin" $named ping > /dev/null 2> "$work/err" && { echo "deep --data made"; exit 1; }
  else
    VXQM_DATA="$work/deep/b/c" "$vxadmin" ping > /dev/null 2> "$work/err" &&
      { echo "deep VXQM_DATA made"; exit 1; }
  fi
  grep -q "data directory $work/deep/b/c: its parent directory does not exist" "$work/err" ||
    { cat "$work/err"; exit 1; }
  expect_none "$work/deep"
done

# --data '' is an error, not the default directory.
if env -u VXQM_DATA XDG_STATE_HOME="$work/state4" "$vxadmin" --data '' ping 2> "$work/err"; then
  echo "--data '' was accepted"; exit 1
fi
grep -qx "vxadmin: --data: the name of the data directory is empty" "$work/err" ||
  { cat "$work/err"; exit 1; }
expect_none "$work/state4"

# Names that would be paths are refused before anything is made.
for name in ../evil ../../evil .hidden QM/A /tmp/evil; do
  if "$vxadmin" --data "$work/names" --qmgr "$name" ping 2> "$work/err"; then
    echo "queue manager $name was accepted"; exit 1
  fi
  grep -q "2058 RC_Q_MGR_NAME_ERROR" "$work/err" || { cat "$work/err"; exit 1; }
done
expect_none "$work/names"
expect_none "$work/evil.db"

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
