#!/usr/bin/env bash
# Benchmark of vxadmin, run by hand: how long a command takes, from the
# start of its process to its exit, for `ping`, `status` and `put Q text`;
# median and p90 in milliseconds over a number of runs each (one run more
# before them, not counted).  First with a command server that `vxadmin
# start` runs in the background, which each command uses; then without one,
# each command hosting its own.  The data directory and the directory of
# storage in memory (VXQM_MEMORY_DIR) are made for the run and removed at
# the end; the server is stopped at the end, however the run ends.
#
#   bash bench/bench_vxadmin_latency.sh [runs]        (default 50)
set -eu
cd "$(dirname "$0")/.."
runs=${1:-50}
build=${BUILD:-build}
cmake --build "$build" --target vxadmin > /dev/null
vxadmin=$build/tools/vxadmin

work=$(mktemp -d)
memory=$(mktemp -d /dev/shm/bench_vxadmin.XXXXXX)
export VXQM_MEMORY_DIR=$memory
data=$work/data
finish() {
  "$vxadmin" --data "$data" stop > /dev/null 2>&1 || true
  rm -rf "$work" "$memory"
}
trap finish EXIT
trap 'exit 130' INT TERM

# Milliseconds of each run of a command, one a line, in $work/times.
timed() {
  "$vxadmin" --data "$data" "$@" > /dev/null
  : > "$work/times"
  for ((i = 0; i < runs; i++)); do
    start=$EPOCHREALTIME
    "$vxadmin" --data "$data" "$@" > /dev/null
    end=$EPOCHREALTIME
    echo "$start $end" >> "$work/times"
  done
}
# "median p90" of $work/times.
summary() {
  awk '{ printf "%.3f\n", ($2 - $1) * 1000 }' "$work/times" | sort -n |
    awk '{ v[NR] = $1 } END {
      m = (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
      p = int(0.9 * NR + 0.999999); if (p < 1) p = 1
      printf "%8.2f %8.2f", m, v[p] }'
}

commands=("ping" "status" "put Q text")
"$vxadmin" --data "$data" create queue Q --max-depth 100000 > /dev/null

"$vxadmin" --data "$data" start > /dev/null
declare -A served
for command in "${commands[@]}"; do
  # shellcheck disable=SC2086  # the words of the command
  timed $command
  served[$command]=$(summary)
done
"$vxadmin" --data "$data" show qmgr | grep -q 'running (pid' ||
  { echo "bench_vxadmin_latency: the commands did not go to the started server" >&2; exit 1; }
"$vxadmin" --data "$data" stop > /dev/null

declare -A hosted
for command in "${commands[@]}"; do
  # shellcheck disable=SC2086
  timed $command
  hosted[$command]=$(summary)
done
"$vxadmin" --data "$data" show qmgr | grep -q 'hosted by this vxadmin process' ||
  { echo "bench_vxadmin_latency: a command server still ran" >&2; exit 1; }

echo "vxadmin, process start to exit, ms, $runs runs each"
printf '  %-14s %-26s %s\n' "" "with a started server" "each command hosts its own"
printf '  %-14s %8s %8s            %8s %8s\n' "command" median p90 median p90
for command in "${commands[@]}"; do
  printf '  %-14s %s            %s\n' "$command" "${served[$command]}" "${hosted[$command]}"
done
