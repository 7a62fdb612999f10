#!/bin/sh
# A vxadmin process killed with SIGKILL in the middle of a put loop loses
# none of the puts it reported: the next process finds each of them, in the
# order put, and nothing twice.
#
#   check_kill.sh VXADMIN
set -eu
vxadmin=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "$*" >&2
  exit 1
}

# Persistent by the queue's default: the puts say so.
"$vxadmin" --data "$work/data" create queue KILL.Q --max-depth 100000 \
  --def-persistence persistent > /dev/null
i=1
while [ $i -le 100000 ]; do
  echo "put KILL.Q k.$i"
  i=$((i + 1))
done > "$work/commands"

# The shell writes each command's line as the command ends.
"$vxadmin" --data "$work/data" shell < "$work/commands" > "$work/out" 2> "$work/err" &
pid=$!
waited=0
until [ "$(grep -c '^put' "$work/out")" -ge 300 ]; do
  [ $waited -lt 600 ] || fail "300 puts were not reported within a minute: $(cat "$work/err")"
  sleep 0.1
  waited=$((waited + 1))
done
kill -9 $pid
wait $pid 2> /dev/null && fail "the put loop ended before it was killed"

reported=$(grep -c '^put .* (persistent)' "$work/out")
[ "$reported" -lt 100000 ] || fail "every put ended before the kill"
"$vxadmin" --data "$work/data" get KILL.Q --browse --count 100000 2> /dev/null |
  grep -v '^--- message ' > "$work/there" || true
there=$(wc -l < "$work/there")
# The reported puts, in order; then at most the one put that was under way.
head -n "$reported" "$work/commands" | sed 's/^put KILL.Q //' > "$work/expected"
head -n "$reported" "$work/there" | cmp -s - "$work/expected" ||
  fail "of $reported reported puts, not all are there in order"
[ "$there" -le $((reported + 1)) ] || fail "$there messages there after $reported puts"
[ "$(sort -u "$work/there" | wc -l)" -eq "$there" ] || fail "a message is there twice"
echo "$reported puts reported before the kill, $there messages there afterwards"
