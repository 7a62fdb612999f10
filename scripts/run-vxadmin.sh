#!/bin/sh
# Builds vxadmin and runs a short session on a fresh data directory: the
# command server started in the background, two queues created, messages
# put, the queues listed and shown, their status as a table and as JSON, a
# message got; then an application that holds a queue open, seen in the
# status, takes the other and then a non-persistent message that vxadmin
# puts; which command server answered, and where the data lives; the queues
# deleted and the command server stopped.  Each command is a process of its
# own, and every process is a door to the one queue manager of the data
# directory: each sees what the others did.
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target vxadmin payroll_app
data=$(mktemp -d)
app=""
cleanup() {
  [ -z "$app" ] || kill "$app" 2> /dev/null || true
  ./build/tools/vxadmin --data "$data" stop > /dev/null 2>&1 || true
  rm -rf "$data"
}
trap cleanup EXIT

# Shows each command as it would be typed, then runs it.
vxadmin() {
  printf '\n$ vxadmin'
  for word in "$@"; do
    case "$word" in
      *[!A-Za-z0-9._/%=-]*) printf " '%s'" "$word" ;;
      *) printf ' %s' "$word" ;;
    esac
  done
  printf '\n'
  ./build/tools/vxadmin --data "$data" "$@" || printf '(exit status %s)\n' "$?"
}

vxadmin start
vxadmin create queue PAYROLL.IN --max-depth 10000 --description "payroll requests" \
  --def-persistence persistent
vxadmin create queue PAYROLL.OUT
vxadmin put PAYROLL.IN hello
vxadmin put PAYROLL.IN "second request"
vxadmin list queues 'PAY*'
vxadmin show queue PAYROLL.IN
vxadmin status 'PAY*'
vxadmin status 'PAY*' --json
vxadmin get PAYROLL.IN --wait 1000

# An application in a process of its own holds PAYROLL.IN open for input:
# it takes the request left there, then waits for the next.
printf '\n$ ./build/samples/payroll_app 2 &\n'
: > "$data/app.out"
VXQM_DATA=$data ./build/samples/payroll_app 2 10000 > "$data/app.out" &
app=$!
until [ "$(wc -l < "$data/app.out")" -ge 2 ]; do sleep 0.05; done
cat "$data/app.out"
vxadmin status 'PAY*'
vxadmin put PAYROLL.IN "from another process" --non-persistent
wait "$app"
app=""
sed 1,2d "$data/app.out"
vxadmin show qmgr
vxadmin delete queue PAYROLL.IN --purge
vxadmin delete queue PAYROLL.OUT
vxadmin list queues 'PAY*'
vxadmin stop
