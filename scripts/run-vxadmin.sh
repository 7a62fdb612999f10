#!/bin/sh
# Builds vxadmin and runs a short session on a fresh data directory: two
# queues created, messages put, the queues listed and shown, their status
# as a table and as JSON, a message got, the queues deleted.  The commands
# go through one `vxadmin shell` (one process), which echoes each first.
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target vxadmin
data=$(mktemp -d)
trap 'rm -rf "$data"' EXIT
echo
./build/tools/vxadmin --data "$data" shell --echo <<'COMMANDS'
create queue PAYROLL.IN --max-depth 10000 --description "payroll requests"
create queue PAYROLL.OUT
put PAYROLL.IN hello
put PAYROLL.IN "second request"
list queues 'PAY*'
show queue PAYROLL.IN
status 'PAY*'
status 'PAY*' --json
get PAYROLL.IN
delete queue PAYROLL.IN --purge
delete queue PAYROLL.OUT
list queues 'PAY*'
COMMANDS
