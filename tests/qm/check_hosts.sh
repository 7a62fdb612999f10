#!/bin/sh
# One queue manager shared by hosts through a PostgreSQL server: processes
# that name other hosts (VXQM_HOST) reach it over TCP on loopback, as
# programs on other machines would.
#
#   check_hosts.sh VXADMIN QM_PEER EXECUTE_ONLY [EACH]
#
# Host A runs the command server (vxadmin serve); host B's program that only
# calls vxExecute is answered by it; messages put on host B are got on host
# C; a handle and a unit of work of a process of host B, killed, are given
# back to host C; then 4 processes of 4 hosts put EACH messages (default
# 10000), persistent and not in turn, while 2 processes of other hosts get
# them: every message is got once.  show qmgr, given the URI with a
# password, shows it without.
set -eu
vxadmin=$1
peer=$2
execute_only=$3
each=${4:-10000}
: "${VX_TEST_POSTGRES_DIR:?the tests' PostgreSQL server is not running (ctest fixture postgres)}"
export VXQM_DATA="$(cat "$VX_TEST_POSTGRES_DIR/tcp_uri")"
qm="HOSTS.$$"
work=$(mktemp -d)
# The pid file and log of the command server go in the state directory.
export XDG_STATE_HOME="$work"
# Every process started in the background: none outlives a failed check.
server="" drainer="" holder="" unit="" getters="" putters=""
cleanup() {
  # shellcheck disable=SC2086
  for pid in $server $drainer $holder $unit $getters $putters; do kill -9 "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "$*" >&2
  exit 1
}
# Waits for a line "ready..." in a file that a process in the background
# writes.
await_ready() {
  i=0
  until grep -q "^ready" "$1" 2>/dev/null; do
    i=$((i + 1))
    [ $i -le 300 ] || fail "not ready: $(cat "$1")"
    sleep 0.1
  done
}

echo "== host A runs the command server"
VXQM_HOST=host-a "$vxadmin" --qmgr "$qm" serve 2>"$work/server.log" &
server=$!
i=0
until grep -q "started" "$work/server.log"; do
  i=$((i + 1))
  [ $i -le 300 ] || fail "serve did not start: $(cat "$work/server.log")"
  sleep 0.1
done

echo "== a vxExecute on host B is answered by host A"
VXQM_HOST=host-b "$execute_only" "$qm" >"$work/out" || fail "not answered: $(cat "$work/out")"
printf 'ping: reason 0\nqueue names: reason 0\n' | cmp -s - "$work/out" || fail "$(cat "$work/out")"

echo "== messages put on host B are got on host C"
VXQM_HOST=host-c "$vxadmin" --qmgr "$qm" create queue SHARED --max-depth 100000 >/dev/null
VXQM_HOST=host-c "$peer" "$qm" drain SHARED 5000 >"$work/drained" &
drainer=$!
VXQM_HOST=host-b "$peer" "$qm" put SHARED 100 B- np >/dev/null
wait "$drainer" || fail "the drain on host C failed"
drainer=""
[ "$(wc -l <"$work/drained")" -eq 100 ] || fail "host C got $(wc -l <"$work/drained") of 100"
[ "$(sort -u "$work/drained" | wc -l)" -eq 100 ] || fail "host C got a message twice"

echo "== a killed process of host B gives back its handle and its unit"
VXQM_HOST=host-b "$peer" "$qm" hold SHARED 4 >"$work/hold" &
holder=$!
await_ready "$work/hold"
[ "$(VXQM_HOST=host-c "$peer" "$qm" open SHARED 2)" = 2042 ] || fail "host C opened a queue held exclusively"
kill -9 "$holder"
wait "$holder" 2>/dev/null || true
holder=""
[ "$(VXQM_HOST=host-c "$peer" "$qm" open SHARED 2)" = 0 ] || fail "the exclusive open was not given back"
VXQM_HOST=host-b "$peer" "$qm" put SHARED 1 KEPT- >/dev/null
VXQM_HOST=host-b "$peer" "$qm" unit SHARED >"$work/unit" &
unit=$!
await_ready "$work/unit"
kill -9 "$unit"
wait "$unit" 2>/dev/null || true
unit=""
VXQM_HOST=host-c "$peer" "$qm" drain SHARED 0 >"$work/drained"
printf 'KEPT-0\n' | cmp -s - "$work/drained" || fail "after the unit's kill: $(cat "$work/drained")"

echo "== 4 hosts put $each messages each while 2 others get them"
for host in g1 g2; do
  VXQM_HOST="$host" "$peer" "$qm" drain SHARED 10000 >"$work/got.$host" &
  getters="$getters $!"
done
for host in p1 p2 p3 p4; do
  VXQM_HOST="$host" "$peer" "$qm" mixed SHARED "$each" "$host-" &
  putters="$putters $!"
done
for pid in $putters; do wait "$pid" || fail "a putter failed"; done
for pid in $getters; do wait "$pid" || fail "a getter failed"; done
cat "$work"/got.* >"$work/got"
total=$((each * 4))
[ "$(wc -l <"$work/got")" -eq "$total" ] || fail "got $(wc -l <"$work/got") of $total"
[ -z "$(sort "$work/got" | uniq -d | head -1)" ] || fail "a message was got twice"

echo "== show qmgr names the server that answered and leaves out the URI's password"
with_password=$(printf '%s' "$VXQM_DATA" | sed 's|//vxtest@|//vxtest:secret@|')
VXQM_HOST=host-c "$vxadmin" --data "$with_password" --qmgr "$qm" show qmgr >"$work/show"
grep -q "^command_server  *running" "$work/show" || fail "$(cat "$work/show")"
grep -q "vxtest:\.\.\.@127.0.0.1" "$work/show" || fail "$(cat "$work/show")"
if grep -q secret "$work/show"; then fail "the password is shown: $(cat "$work/show")"; fi

kill -TERM "$server"
wait "$server" || fail "serve did not end cleanly: $(cat "$work/server.log")"
server=""
echo "ok"
