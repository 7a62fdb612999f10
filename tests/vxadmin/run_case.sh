#!/bin/sh
# Runs one vxadmin case on a fresh data directory and compares what it
# writes (standard output, standard error, exit status) with its golden
# file.  What varies from run to run is masked first: message ids, the
# names of temporary reply queues and the case's directory.
#
#   run_case.sh VXADMIN CASE GOLDEN     (UPDATE=1 writes the golden file)
#
# The case runs in a directory of its own holding the files of files/, on
# an empty data directory that is there (mode 0700): the queue manager is
# made by the case's first command, which says so on standard error.
# A case file holds a line "args: ..." (the arguments, as shell words),
# then optionally a line "---" and the text given on standard input.
set -u
vxadmin=$1 case=$2 golden=$3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
work=$(cd "$work" && pwd -P)
cp "$(dirname "$0")/files/"* "$work/"
mkdir -m 700 "$work/data"

args=$(sed -n 's/^args: //p' "$case" | head -n 1)
sed '1,/^---$/d' "$case" > "$work/stdin"
grep -q '^---$' "$case" || : > "$work/stdin"

eval "set -- $args"
(cd "$work" && "$vxadmin" --data "$work/data" "$@" < "$work/stdin" > "$work/out" 2> "$work/err")
status=$?

{
  echo "== stdout"
  cat "$work/out"
  echo "== stderr"
  cat "$work/err"
  echo "== exit $status"
} | sed -E -e "s|$work|<work>|g" \
           -e 's/[0-9A-F]{48}/<msg-id>/g' \
           -e 's/VXAI\.REPLY\.[0-9A-F]{16}/VXAI.REPLY.################/g' > "$work/actual"

if [ "${UPDATE:-0}" = 1 ]; then
  cp "$work/actual" "$golden"
  exit 0
fi
diff -u "$golden" "$work/actual"
