#!/bin/sh
# Benchmark of vxadmin, run by hand: messages per second of `vxadmin put`
# then `get` of 256-byte messages, persistent (through the SQLite store),
# beside non-persistent ones (kept in the companion in memory), and beside
# plain SQLite inserts of the same rows in a transaction each, as
# bench_store measures them (the limit a persistent put is measured
# against).  The puts are one `vxadmin shell` process reading one put per
# line, the gets one `vxadmin get --count`; non-persistent gets are timed as
# the difference between a shell that puts them and one that also gets
# them.
#
#   sh bench/bench_vxadmin.sh [messages]        (default 10000)
set -eu
cd "$(dirname "$0")/.."
count=${1:-10000}
cmake -S . -B build -G Ninja > /dev/null
cmake --build build --target vxadmin bench_store > /dev/null
vxadmin=./build/tools/vxadmin

work=$(mktemp -d)
# The queue manager's companion in memory goes with the run too.
VXQM_MEMORY_DIR=$(mktemp -d /dev/shm/bench_vxadmin.XXXXXX)
export VXQM_MEMORY_DIR
trap 'rm -rf "$work" "$VXQM_MEMORY_DIR"' EXIT
# 256 bytes a message: a number of 8 digits, then 248 x.
padding=$(printf '%248s' '' | tr ' ' x)
i=1
while [ $i -le "$count" ]; do
  printf 'put BENCH %08d%s\n' $i "$padding"
  i=$((i + 1))
done > "$work/puts"
sed 's/$/ --non-persistent/' "$work/puts" > "$work/puts.memory"
{ cat "$work/puts.memory"; echo "get BENCH --count $count"; } > "$work/puts.memory.get"

now() { date +%s.%N; }
# Seconds that a command takes, its output discarded.
timed() {
  start=$(now)
  "$@" > /dev/null
  end=$(now)
  awk "BEGIN { print $end - $start }"
}
rate() { awk "BEGIN { printf \"%.0f\", $count / $1 }"; }

# Persistent unless a put says otherwise: puts follow the queue's default.
"$vxadmin" --data "$work/data" create queue BENCH --max-depth "$count" \
  --def-persistence persistent > /dev/null
put=$(timed "$vxadmin" --data "$work/data" shell < "$work/puts")
get=$(timed "$vxadmin" --data "$work/data" get BENCH --count "$count")
memory_put=$(timed "$vxadmin" --data "$work/data" shell < "$work/puts.memory")
memory_both=$(timed "$vxadmin" --data "$work/data" shell < "$work/puts.memory.get")
memory_get=$(awk "BEGIN { print $memory_both - $memory_put }")
plain=$(./build/bench/bench_store "$count" | sed -n 's/.*plain SQLite insert, one each *put *//p')

echo "$count messages of 256 bytes through vxadmin, messages per second"
printf '  %-34s put %9s   get %9s\n' "persistent (SQLite store)" "$(rate "$put")" "$(rate "$get")"
printf '  %-34s put %9s   get %9s\n' "non-persistent (in memory)" "$(rate "$memory_put")" \
  "$(rate "$memory_get")"
printf '  %-34s put %9s\n' "plain SQLite insert, one each" "$plain"
printf '  persistent put takes %sx the time of a plain insert (target: 2x or less)\n' \
  "$(awk "BEGIN { printf \"%.2f\", $plain * $put / $count }")"
