#!/bin/sh
# Builds vxadmin and shows one queue manager shared through a PostgreSQL
# server, as programs on several hosts share it: a throwaway server is
# started for the session (scripts/pg-test-server.sh), and VXQM_DATA names
# its database by a URI over TCP.  "Host A" (VXQM_HOST=host-a) starts the
# command server; "host B" creates a queue through it, puts messages and
# sees the queue's status; an application of host A holds the queue open
# and takes a message that host B puts; host B sees which server answered
# and where the queue manager lives; host A stops the server.  The server
# is stopped and removed at the end.
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target vxadmin payroll_app
server=$(mktemp -d)
state=$(mktemp -d)
app=""
cleanup() {
  [ -z "$app" ] || kill "$app" 2>/dev/null || true
  VXQM_HOST=host-a XDG_STATE_HOME=$state ./build/tools/vxadmin stop >/dev/null 2>&1 || true
  sh scripts/pg-test-server.sh stop "$server" >/dev/null
  rm -rf "$server" "$state"
}
trap cleanup EXIT
sh scripts/pg-test-server.sh start "$server" >/dev/null
VXQM_DATA=$(cat "$server/tcp_uri")
export VXQM_DATA
# vxadmin keeps the pid file and log of the command server it starts in the
# user's state directory: one of the session's own.
export XDG_STATE_HOME="$state"
printf '$ export VXQM_DATA=%s\n' "$VXQM_DATA"

# Shows each command as it would be typed on its host, then runs it.
on() {
  host=$1
  shift
  printf '\n%s$ vxadmin' "$host"
  for word in "$@"; do
    case "$word" in
      *[!A-Za-z0-9._/%=-]*) printf " '%s'" "$word" ;;
      *) printf ' %s' "$word" ;;
    esac
  done
  printf '\n'
  VXQM_HOST=$host ./build/tools/vxadmin "$@"
}

on host-a start
on host-b create queue PAYROLL.IN --max-depth 10000 --description "payroll requests"
on host-b put PAYROLL.IN hello --persistent
on host-b put PAYROLL.IN "second request"
on host-b status 'PAY*'

# An application of host A holds PAYROLL.IN open for input: it takes the
# requests left there, then waits for the next, which host B puts.
printf '\nhost-a$ ./build/samples/payroll_app 3 &\n'
VXQM_HOST=host-a ./build/samples/payroll_app 3 10000 >"$state/app.out" &
app=$!
until [ "$(wc -l <"$state/app.out")" -ge 3 ]; do sleep 0.05; done
cat "$state/app.out"
on host-b status PAYROLL.IN
on host-b put PAYROLL.IN "from host B"
wait "$app"
app=""
sed 1,3d "$state/app.out"
on host-b show qmgr
on host-b delete queue PAYROLL.IN
on host-a stop
