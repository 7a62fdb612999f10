#!/bin/sh
# A program that only calls vxExecute, and hosts no command server, is
# answered by the server that `vxadmin serve` runs in another process; with
# no server running, it gets reason 2322 at once.
#
#   check_execute_only.sh VXADMIN EXECUTE_ONLY
set -eu
vxadmin=$1
program=$2
work=$(mktemp -d)
export VXQM_DATA="$work/data"
server=""
cleanup() {
  [ -z "$server" ] || kill -9 "$server" 2> /dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "$*" >&2
  exit 1
}

echo "== no command server"
"$vxadmin" create queue MADE.BEFORE > /dev/null 2>&1
if "$program" > "$work/out"; then fail "answered without a server: $(cat "$work/out")"; fi
grep -q "ping: reason 2322" "$work/out" || fail "not 2322: $(cat "$work/out")"

echo "== vxadmin serve in another process"
"$vxadmin" serve 2> "$work/log" &
server=$!
i=0
until grep -q "started" "$work/log"; do
  i=$((i + 1))
  [ $i -le 100 ] || fail "serve did not start: $(cat "$work/log")"
  sleep 0.1
done
"$program" > "$work/out" || fail "not answered: $(cat "$work/out")"
printf 'ping: reason 0\nqueue names: reason 0\n' | cmp -s - "$work/out" || fail "$(cat "$work/out")"
kill -TERM "$server"
wait "$server" || fail "serve did not end cleanly: $(cat "$work/log")"
server=""
echo "answered by the server of another process"
