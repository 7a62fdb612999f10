#!/bin/sh
# Builds vxadmin and runs a short session on a fresh data directory: two
# queues created, messages put, the queues listed and shown, their status
# as a table and as JSON, a message got, the queues deleted.  Each command
# is a process of its own: the queue manager keeps its state in the data
# directory, so every command sees what the ones before it did.
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target vxadmin
data=$(mktemp -d)
trap 'rm -rf "$data"' EXIT

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
  ./build/tools/vxadmin --data "$data" "$@"
}

vxadmin create queue PAYROLL.IN --max-depth 10000 --description "payroll requests"
vxadmin create queue PAYROLL.OUT
vxadmin put PAYROLL.IN hello
vxadmin put PAYROLL.IN "second request"
vxadmin list queues 'PAY*'
vxadmin show queue PAYROLL.IN
vxadmin status 'PAY*'
vxadmin status 'PAY*' --json
vxadmin get PAYROLL.IN --wait 1000
vxadmin delete queue PAYROLL.IN --purge
vxadmin delete queue PAYROLL.OUT
vxadmin list queues 'PAY*'
