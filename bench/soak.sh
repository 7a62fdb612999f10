#!/bin/sh
# The soak run: one queue manager, over a fresh data directory, kept busy for
# a while by
#   - a command server (soak serve: vxcsStart, in a process of its own),
#   - 8 threads of one process calling vxExecute in rounds of 10,000 calls
#     (ping, create queue, inquire queue names, inquire queue, inquire queue
#     status, delete queue on a scratch queue of each thread), every reply
#     counted (soak execute),
#   - 4 processes putting messages in rounds of 10,000, persistent and not
#     in turn, each with a unique id, got by the other processes (soak
#     messages),
# then checks that every command was answered, every message put was got
# exactly once, and that the memory of the two long-lived processes (the
# server and the vxExecute process) stayed flat: each writes its resident
# set and the common services' live blocks to a CSV every second, and the
# mean of the last window is compared with the mean of the first window
# after the warm-up (windows of a minute, or a quarter of a short run).
#
# It runs twice by default: under ThreadSanitizer (build-tsan; any report
# fails the run; memory is shown, not judged, as the sanitizer's own shadow
# grows), then natively (RelWithDebInfo, build-soak).
#
#   sh bench/soak.sh [--tsan | --native | --both] [--keep] [SECONDS]
#
# SECONDS (or SOAK_SECONDS) is the length of each run, default 600.
# SOAK_THREADS, SOAK_CALLS, SOAK_PROCESSES, SOAK_MESSAGES change the load
# (defaults 8, 10000, 4, 10000); SOAK_OUT the folder of the CSVs and logs
# (default build-soak/soak-results, one folder per run inside).  The data
# directory (under /tmp) and the directory of storage in memory (under
# /dev/shm) are made for each run and removed at the end, whatever happens.
# Exits non-zero on a failed command, a message lost or duplicated, a
# sanitizer report, or memory growth of 5% or more.
set -u
cd "$(dirname "$0")/.."
root=$PWD

mode=both
seconds=${SOAK_SECONDS:-600}
for arg in "$@"; do
  case $arg in
    --tsan) mode=tsan ;;
    --native) mode=native ;;
    --both) mode=both ;;
    -h | --help)
      sed -n '2,/^set -u/p' "$0" | sed '$d; s/^# \{0,1\}//'
      exit 0
      ;;
    *[!0-9]* | '')
      echo "soak: unknown argument '$arg' (try --help)" >&2
      exit 2
      ;;
    *) seconds=$arg ;;
  esac
done
if [ "$seconds" -lt 20 ]; then
  echo "soak: a run takes at least 20 seconds" >&2
  exit 2
fi
threads=${SOAK_THREADS:-8}
calls=${SOAK_CALLS:-10000}
processes=${SOAK_PROCESSES:-4}
messages=${SOAK_MESSAGES:-10000}
out_root=${SOAK_OUT:-$root/build-soak/soak-results}
jobs=$(nproc)

# Windows of the memory comparison.
if [ "$seconds" -ge 300 ]; then
  window=60
else
  window=$((seconds / 4))
fi

scratch=""
server_pid=""
cleanup() {
  if [ -n "$server_pid" ]; then
    kill -TERM "$server_pid" 2>/dev/null
    wait "$server_pid" 2>/dev/null
  fi
  [ -n "$scratch" ] && rm -rf "$scratch/data" "$scratch/memory" "$scratch"
  [ -n "${memory:-}" ] && rm -rf "$memory"
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

build() { # DIR SANITIZE
  if [ ! -f "$1/build.ninja" ]; then
    cmake -S . -B "$1" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVX_SANITIZE="$2" >/dev/null ||
      return 1
  fi
  cmake --build "$1" -j "$jobs" --target soak >/dev/null || {
    cmake --build "$1" -j 1 --target soak
    return 1
  }
}

# Mean of a CSV column over seconds [from, to).
mean() { # FILE COLUMN FROM TO
  awk -F, -v c="$2" -v a="$3" -v b="$4" \
    'NR > 1 && $1 >= a && $1 < b { s += $c; n++ } END { if (n) printf "%.1f", s / n; else print "nan" }' "$1"
}

# Growth of a column from the first window after the warm-up to the last
# window of the run; FAIL when judged and 5% or more (and, for blocks, more
# than 16 blocks: a few calls in flight hold some).
growth() { # FILE COLUMN LABEL JUDGE
  first=$(mean "$1" "$2" "$window" $((window * 2)))
  last=$(mean "$1" "$2" $((seconds - window)) "$seconds")
  awk -v f="$first" -v l="$last" -v label="$3" -v judge="$4" -v col="$2" 'BEGIN {
    if (f == "nan" || l == "nan") { printf "  %-28s no samples\n", label; exit judge }
    g = f > 0 ? (l - f) * 100 / f : (l > 0 ? 100 : 0)
    bad = g >= 5 && (col != 3 || l - f > 16)
    printf "  %-28s first %12.1f  last %12.1f  growth %6.2f%%%s\n", label, f, l, g,
      judge && bad ? "  FAIL" : (judge ? "  flat" : "  (not judged)")
    exit judge && bad
  }'
}

run() { # tsan|native
  kind=$1
  if [ "$kind" = tsan ]; then
    dir=$root/build-tsan
    sanitize=thread
  else
    dir=$root/build-soak
    sanitize=
  fi
  echo "== soak, $kind: building $dir (target soak)"
  build "$dir" "$sanitize" || return 1
  bin=$dir/bench/soak
  out=$out_root/$kind-$(date +%Y%m%d-%H%M%S)
  mkdir -p "$out"
  scratch=$(mktemp -d /tmp/vxai-soak.XXXXXX)
  memory=$(mktemp -d /dev/shm/vxai-soak.XXXXXX)
  export VXQM_DATA="$scratch/data" VXQM_MEMORY_DIR="$memory"
  export TSAN_OPTIONS="halt_on_error=0:exitcode=66:second_deadlock_stack=1:log_path=$out/tsan"
  echo "== soak, $kind: $seconds s; $threads threads x $calls vxExecute calls a round;" \
    "$processes processes x $messages messages a round; results in $out"

  "$bin" serve "$out/server.csv" >"$out/server.out" 2>"$out/server.err" &
  server_pid=$!
  waited=0
  until grep -q '^ready' "$out/server.out" 2>/dev/null; do
    if ! kill -0 "$server_pid" 2>/dev/null || [ $waited -ge 600 ]; then
      echo "soak: the command server did not start" >&2
      cat "$out/server.out" "$out/server.err" >&2
      return 1
    fi
    sleep 0.1
    waited=$((waited + 1))
  done

  "$bin" execute "$out/execute.csv" "$seconds" "$threads" "$calls" \
    >"$out/execute.out" 2>"$out/execute.err" &
  execute_pid=$!
  "$bin" messages "$seconds" "$processes" "$messages" "$out" \
    >"$out/messages.out" 2>"$out/messages.err" &
  messages_pid=$!
  wait "$execute_pid"
  execute_rc=$?
  wait "$messages_pid"
  messages_rc=$?
  kill -TERM "$server_pid"
  wait "$server_pid"
  server_rc=$?
  server_pid=""

  failed=0
  echo "-- commands"
  grep -v '^RESULT' "$out/execute.out"
  grep -h '^RESULT' "$out/execute.out" "$out/messages.out" "$out/server.out"
  for f in execute messages server; do
    [ -s "$out/$f.err" ] && { echo "-- $f, standard error:"; head -20 "$out/$f.err"; }
  done
  [ $execute_rc -eq 0 ] || { echo "FAIL: vxExecute process (exit $execute_rc)"; failed=1; }
  [ $messages_rc -eq 0 ] || { echo "FAIL: messages (exit $messages_rc)"; failed=1; }
  [ $server_rc -eq 0 ] || { echo "FAIL: command server (exit $server_rc)"; failed=1; }
  if ls "$out"/tsan.* >/dev/null 2>&1; then
    echo "FAIL: ThreadSanitizer reports:"
    for f in "$out"/tsan.*; do
      echo "  $f"
      grep -m 3 -E 'WARNING: ThreadSanitizer|^    #[0-2] ' "$f" | sed 's/^/    /'
    done
    failed=1
  fi

  judge=1
  [ "$kind" = tsan ] && judge=0
  echo "-- memory: mean of seconds [$window, $((window * 2))) against [$((seconds - window)), $seconds)"
  for p in server execute; do
    growth "$out/$p.csv" 2 "$p RSS (kB)" "$judge" || failed=1
    growth "$out/$p.csv" 3 "$p svc blocks" "$judge" || failed=1
    growth "$out/$p.csv" 5 "$p anonymous RSS (kB)" 0
  done

  rm -rf "$scratch" "$memory"
  scratch=""
  memory=""
  if [ $failed -eq 0 ]; then echo "== soak, $kind: PASS"; else echo "== soak, $kind: FAIL"; fi
  return $failed
}

status=0
case $mode in
  tsan) run tsan || status=1 ;;
  native) run native || status=1 ;;
  both)
    run tsan || status=1
    run native || status=1
    ;;
esac
exit $status
