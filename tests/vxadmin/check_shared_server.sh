#!/bin/sh
# The command server that start runs answers the commands of other vxadmin
# processes: they see it through the open-input count of the command queue,
# which the queue manager shares between the processes of one data
# directory, and start none of their own.  Their replies come back on
# temporary queues, which the queue manager shares too.
#
#   check_shared_server.sh VXADMIN
set -eu
vxadmin=$1
work=$(mktemp -d)
data=$work/data
pid=""
cleanup() {
  [ -z "$pid" ] || kill -9 "$pid" 2> /dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
vx() { "$vxadmin" --data "$data" "$@"; }
fail() {
  echo "$*" >&2
  exit 1
}
# The number that "key" has in a JSON document (its first occurrence).
json_number() { tr -d ' \n' < "$1" | grep -o "\"$2\":[0-9]*" | head -n 1 | cut -d: -f2; }

vx start > /dev/null
pid=$(cat "$data/QM1.server.pid")

echo "== ping and status answered by the server of start"
# Short waits: a command that nobody answers fails at once rather than in 30 s.
vx --wait 5000 ping > "$work/ping" 2> "$work/err" || fail "ping: $(cat "$work/err")"
grep -q "the command server answers" "$work/ping" || fail "ping: $(cat "$work/ping")"
vx --wait 5000 create queue SHARED.Q > /dev/null
vx put SHARED.Q one > /dev/null
# One process: show qmgr names the server it used, and status goes to the
# same one.  The command queue has one reader, the server of start: this
# process hosts none.
printf 'show qmgr\nstatus SHARED.Q\nstatus SYSTEM.ADMIN.COMMAND.QUEUE\n' |
  vx --json --wait 5000 shell > "$work/shell" 2> "$work/err" || fail "shell: $(cat "$work/err")"
tr -d ' \n' < "$work/shell" | grep -q '"command_server":"running"' || fail "show qmgr: $(cat "$work/shell")"
[ "$(json_number "$work/shell" command_server_pid)" = "$pid" ] ||
  fail "show qmgr does not name pid $pid: $(cat "$work/shell")"
tr -d ' \n' < "$work/shell" | grep -q '"q_name":"SHARED.Q","current_depth":1' ||
  fail "status: $(cat "$work/shell")"
tr -d ' \n' < "$work/shell" | grep -q '"q_name":"SYSTEM.ADMIN.COMMAND.QUEUE","current_depth":0,"open_input_count":1,' ||
  fail "the command queue does not have the server of start as its only reader: $(cat "$work/shell")"
vx show qmgr > "$work/show"
grep -q "^command_server  *running (pid $pid)$" "$work/show" || fail "show qmgr: $(cat "$work/show")"

echo "== status leaves out the reply queues of other processes too"
vx status > "$work/status"
grep -q "VXAI\.REPLY\." "$work/status" && fail "status shows reply queues: $(cat "$work/status")"
vx status --all > "$work/status"
grep -q "VXAI\.REPLY\." "$work/status" || fail "status --all leaves out the reply queue: $(cat "$work/status")"

echo "== after stop, each process hosts its own again"
vx stop > /dev/null
pid=""
vx show qmgr > "$work/show"
grep -q "^command_server  *hosted by this vxadmin process$" "$work/show" ||
  fail "show qmgr after stop: $(cat "$work/show")"
vx delete queue SHARED.Q --purge > /dev/null
echo "a server of start answers every vxadmin process"
