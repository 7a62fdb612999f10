#!/bin/sh
# A command server of its own: serve in the foreground, start in the
# background, stop; the pid file and its lock refuse a second server and
# never name a stale one; the log records each event.
#
#   check_server.sh VXADMIN
set -eu
vxadmin=$1
work=$(mktemp -d)
data=$work/data
started=""
cleanup() {
  # A server this check started and left running on a failure.
  for pid in $started; do kill -9 "$pid" 2> /dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
vx() { "$vxadmin" --data "$data" "$@"; }
fail() {
  echo "$*" >&2
  exit 1
}
# Whether a process runs: one that ended but is not reaped yet (the
# daemon's new parent may take its time) does not.
alive() {
  state=$(ps -o stat= -p "$1" 2> /dev/null) || return 1
  case $state in Z* | "") return 1 ;; esac
}
mode() { stat -c %a "$1"; }
# Waits up to 10 s for a line matching $2 in file $1.
await_line() {
  waited=0
  until grep -q "$2" "$1" 2> /dev/null; do
    [ $waited -lt 100 ] || fail "no line '$2' in $1 within 10 s: $(cat "$1")"
    sleep 0.1
    waited=$((waited + 1))
  done
}

echo "== start, refusals, stop"
# start returns with the server ready; nothing it leaves behind keeps the
# output of the command substitution open.
out=$(timeout 30 "$vxadmin" --data "$data" start) || fail "start failed: $out"
pid=$(cat "$data/QM1.server.pid")
started="$started $pid"
expected="command server of queue manager QM1 started (pid $pid, log $data/QM1.server.log)"
[ "$out" = "$expected" ] || fail "start said: $out"
alive "$pid" || fail "the server (pid $pid) is not running"
[ "$(mode "$data/QM1.server.pid")" = 600 ] || fail "pid file mode $(mode "$data/QM1.server.pid")"
[ "$(mode "$data/QM1.server.log")" = 600 ] || fail "log mode $(mode "$data/QM1.server.log")"
# A session of its own: no terminal of whoever started it reaches it.
[ "$(ps -o sid= -p "$pid" | tr -d ' ')" != "$(ps -o sid= -p $$ | tr -d ' ')" ] ||
  fail "the server shares the session of its starter"
grep -q "command server of queue manager QM1 started (pid $pid, data directory $data, database $data/QM1.db)" \
  "$data/QM1.server.log" || fail "log: $(cat "$data/QM1.server.log")"

if vx start > "$work/out" 2> "$work/err"; then fail "a second start was not refused"; fi
grep -q "already running (pid $pid)" "$work/err" || fail "second start: $(cat "$work/err")"
if vx serve 2> "$work/err"; then fail "serve beside start was not refused"; fi
grep -q "already running (pid $pid)" "$work/err" || fail "serve: $(cat "$work/err")"
# Another queue manager in the same directory has a server of its own.
vx --qmgr QMB start > /dev/null || fail "start of QMB refused"
pid_b=$(cat "$data/QMB.server.pid")
started="$started $pid_b"

# Commands beside the server work, and show where the data lives.
vx ping > /dev/null
vx --json show qmgr > "$work/show"
grep -q "\"data_directory\": \"$data\"" "$work/show" || fail "show qmgr: $(cat "$work/show")"
grep -q "\"database\": \"$data/QM1.db\"" "$work/show" || fail "show qmgr: $(cat "$work/show")"
grep -q '"command_server": "\(running\|hosted\)"' "$work/show" || fail "show qmgr: $(cat "$work/show")"

out=$(vx stop) || fail "stop failed"
[ "$out" = "command server of queue manager QM1 stopped (pid $pid)" ] || fail "stop said: $out"
alive "$pid" && fail "the server (pid $pid) still runs after stop"
[ ! -e "$data/QM1.server.pid" ] || fail "the pid file is left after stop"
grep -q "stopping the command server of queue manager QM1 (SIGTERM)" "$data/QM1.server.log" ||
  fail "log: $(cat "$data/QM1.server.log")"
grep -q "command server of queue manager QM1 stopped" "$data/QM1.server.log" ||
  fail "log: $(cat "$data/QM1.server.log")"
alive "$pid_b" || fail "stop of QM1 stopped QMB's server"
set +e
vx stop > "$work/out" 2> "$work/err"
status=$?
set -e
[ $status = 3 ] || fail "stop of nothing: exit $status"
grep -q "no command server is running for queue manager QM1" "$work/err" || fail "$(cat "$work/err")"
vx --qmgr QMB stop > /dev/null

echo "== a stale pid file"
vx start > /dev/null
pid=$(cat "$data/QM1.server.pid")
started="$started $pid"
kill -9 "$pid"
while alive "$pid"; do sleep 0.05; done
[ -e "$data/QM1.server.pid" ] || fail "a killed server removed its pid file"
set +e
vx stop 2> /dev/null
status=$?
set -e
[ $status = 3 ] || fail "stop of a killed server: exit $status"
# A pid file that names a live process that is no server: nobody holds its
# lock, so stop leaves the process alone and start takes the file over.
sleep 60 &
bystander=$!
echo "$bystander" > "$data/QM1.server.pid"
set +e
vx stop 2> /dev/null
status=$?
set -e
[ $status = 3 ] || fail "stop with a stale pid file: exit $status"
alive "$bystander" || fail "stop signalled the process a stale pid file named"
vx start > /dev/null || fail "a stale pid file blocked start"
pid=$(cat "$data/QM1.server.pid")
started="$started $pid"
[ "$pid" != "$bystander" ] || fail "the pid file still names the bystander"
vx stop > /dev/null
kill "$bystander"

echo "== serve in the foreground"
for signal in TERM INT; do
  "$vxadmin" --data "$data" serve 2> "$work/serve.err" &
  pid=$!
  started="$started $pid"
  await_line "$work/serve.err" "started (pid $pid"
  [ "$(cat "$data/QM1.server.pid")" = "$pid" ] || fail "the pid file does not name serve"
  if vx start 2> "$work/err"; then fail "start beside serve was not refused"; fi
  grep -q "already running (pid $pid)" "$work/err" || fail "start beside serve: $(cat "$work/err")"
  kill -"$signal" "$pid"
  set +e
  wait "$pid"
  status=$?
  set -e
  [ $status = 0 ] || fail "serve ended on SIG$signal with exit $status: $(cat "$work/serve.err")"
  grep -q "stopping the command server of queue manager QM1 (SIG$signal)" "$work/serve.err" ||
    fail "serve: $(cat "$work/serve.err")"
  grep -q "command server of queue manager QM1 stopped$" "$work/serve.err" ||
    fail "serve: $(cat "$work/serve.err")"
  [ "$(wc -l < "$work/serve.err")" = 3 ] || fail "serve logged more than its events: $(cat "$work/serve.err")"
done
# stop stops serve too.
"$vxadmin" --data "$data" serve 2> "$work/serve.err" &
pid=$!
started="$started $pid"
await_line "$work/serve.err" "started (pid $pid"
vx stop > /dev/null
set +e
wait "$pid"
status=$?
set -e
[ $status = 0 ] || fail "serve stopped by stop: exit $status"

echo "== start that cannot start"
# The log cannot be opened: start says why, and nothing runs or is left.
mkdir "$data/QMC.server.log"
if vx --qmgr QMC start > /dev/null 2> "$work/err"; then fail "start without a log succeeded"; fi
grep -q "QMC.server.log" "$work/err" || fail "start without a log: $(cat "$work/err")"
[ ! -e "$data/QMC.server.pid" ] || fail "a pid file is left by a start that failed"
if vx --qmgr BAD-NAME start 2> "$work/err"; then fail "start of a bad name succeeded"; fi
grep -q "2058 RC_Q_MGR_NAME_ERROR" "$work/err" || fail "start of a bad name: $(cat "$work/err")"
echo "serve, start and stop: as expected"
