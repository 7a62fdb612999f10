#!/bin/sh
# vxadmin processes over one data directory share one queue manager: what
# one process defines or puts, persistent or not, the ones after it see; and
# two processes
# moving 10,000 messages between them at the same time lose and duplicate
# none.
#
#   check_processes.sh VXADMIN
set -eu
vxadmin=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
vx() { "$vxadmin" --data "$work/data" "$@"; }
fail() {
  echo "$*" >&2
  exit 1
}
# The number that "key" has in a JSON document (its first occurrence).
json_number() { tr -d ' \n' < "$1" | grep -o "\"$2\":[0-9]*" | head -n 1 | cut -d: -f2; }

echo "== one process after another"
vx create queue SEQ.A --max-depth 50 --description "made by the first process" > /dev/null
vx put SEQ.A --persistent first > /dev/null
vx put SEQ.A --persistent second > /dev/null
# A non-persistent message outlives the process that put it.
vx put SEQ.A --non-persistent third > /dev/null
vx change queue SEQ.A --max-depth 60 > /dev/null
vx copy queue SEQ.A SEQ.B > /dev/null
vx show queue SEQ.A --json > "$work/show"
grep -q '"q_desc": "made by the first process"' "$work/show" || fail "description lost"
[ "$(json_number "$work/show" max_q_depth)" = 60 ] || fail "changed maximum depth lost"
[ "$(json_number "$work/show" current_depth)" = 3 ] || fail "depth not 3: $(cat "$work/show")"
vx show queue SEQ.B --json > "$work/copy"
[ "$(json_number "$work/copy" max_q_depth)" = 60 ] || fail "copy does not carry the changed depth"
for i in 1 2 3; do vx get SEQ.A --raw && echo; done > "$work/got"
printf 'first\nsecond\nthird\n' | cmp -s - "$work/got" || fail "got, in order: $(cat "$work/got")"
vx status 'SEQ.*' --json > "$work/status"
[ "$(json_number "$work/status" current_depth)" = 0 ] || fail "messages got are still there"
vx delete queue SEQ.A > /dev/null
vx delete queue SEQ.B > /dev/null
if vx show queue SEQ.A > /dev/null 2> "$work/err"; then fail "a deleted queue is still there"; fi
grep -q 2085 "$work/err" || fail "unexpected error: $(cat "$work/err")"

echo "== two processes moving 10,000 messages between them"
# Each puts 5,000 messages for the other and gets the 5,000 the other puts,
# while the other is still putting.
vx create queue TO.B --max-depth 10000 > /dev/null
vx create queue TO.A --max-depth 10000 > /dev/null
for side in A B; do
  case $side in A) to=TO.B from=TO.A ;; B) to=TO.A from=TO.B ;; esac
  i=1
  while [ $i -le 5000 ]; do
    echo "put $to $side.$i --persistent"
    i=$((i + 1))
  done > "$work/commands.$side"
  echo "get $from --count 5000 --wait 30000" >> "$work/commands.$side"
done
vx shell < "$work/commands.A" > "$work/out.A" 2> "$work/err.A" &
pid_a=$!
vx shell < "$work/commands.B" > "$work/out.B" 2> "$work/err.B" || fail "B: $(cat "$work/err.B")"
wait $pid_a || fail "A: $(cat "$work/err.A")"
# Every message put by one side is got once by the other, in the order put.
for side in A B; do
  case $side in A) other=B ;; B) other=A ;; esac
  grep -c "^put .* (persistent)" "$work/out.$side" > "$work/puts"
  [ "$(cat "$work/puts")" = 5000 ] || fail "$side put $(cat "$work/puts") of 5000"
  grep "^$other\." "$work/out.$side" > "$work/got.$side" || true
  sed -n "s/^put [^ ]* \($other\.[0-9]*\) --persistent$/\1/p" "$work/commands.$other" |
    cmp -s - "$work/got.$side" || fail "$side did not get each of $other's 5000 once, in order"
done
vx status 'TO.*' --json > "$work/status"
tr -d ' \n' < "$work/status" | grep -q '"current_depth":[1-9]' && fail "messages left over"
echo "every message accounted for"
