#!/bin/sh
# The session of scripts/run-vxadmin.sh with every vxadmin process under
# valgrind's memcheck, the leak check on: the first error, leak or failed
# command fails the check.
#
#   memcheck_session.sh VXADMIN        (valgrind from $VX_VALGRIND or PATH)
set -eu
vxadmin=$1
valgrind=${VX_VALGRIND:-valgrind}
data=$(mktemp -d)
trap 'rm -rf "$data"' EXIT

run() {
  echo "\$ vxadmin $*"
  "$valgrind" --tool=memcheck --leak-check=full --show-leak-kinds=definite,indirect \
    --errors-for-leak-kinds=definite,indirect --error-exitcode=99 -q \
    "$vxadmin" --data "$data" "$@"
}

run create queue PAYROLL.IN --max-depth 10000 --description "payroll requests"
run put PAYROLL.IN hello
run put PAYROLL.IN "second request" --non-persistent
run list queues 'PAY*'
run show queue PAYROLL.IN --json
run status 'PAY*'
run get PAYROLL.IN --wait 1000
run put PAYROLL.IN --base64 AP8BZm9v
run get PAYROLL.IN --count 2 --json
run help --man > /dev/null
run completion bash > /dev/null
printf 'ping\nclear queue PAYROLL.IN\ndelete queue PAYROLL.IN\n' | run shell --echo
