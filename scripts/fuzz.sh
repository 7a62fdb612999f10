#!/bin/sh
# Builds the fuzz targets natively (64-bit) with clang, libFuzzer,
# AddressSanitizer with its leak check and UndefinedBehaviorSanitizer, and
# runs each for a bounded time.  Exits non-zero on any crash, leak, time-out,
# sanitizer report or broken invariant; the input that caused it is left in
# the build directory's artifacts/<target>/.
#
# The targets (tests/fuzz/README.md), each with its seeds:
#   fuzz_pcf              the message reader and writer      60 s by default
#   fuzz_command_server   requests put on the command queue  30 s by default
#   fuzz_convert          the queue manager's conversion     30 s by default
#   fuzz_vxadmin_shell    lines of vxadmin shell             30 s by default
#
#   sh scripts/fuzz.sh [build directory]      (default: build-fuzz; relative
#                                             to the repository root)
#   FUZZ_SECONDS=600 sh scripts/fuzz.sh       every target 600 seconds
#   FUZZ_TARGETS="fuzz_convert fuzz_pcf" sh scripts/fuzz.sh    only these
#
# A default run starts from the seeds each time, in a scratch corpus.
#
#   sh scripts/fuzz.sh --long [build directory]
#
# runs a campaign: LONG_SECONDS per target (default 900, an hour for the
# four), each going on from the corpus of the campaigns before it, kept in
# <build directory>/corpus/<target> (outside what git tracks).  A target
# that fails is started again on its corpus until its time is up (or its
# twentieth failure); the campaign then prints, per target, the executions,
# the coverage (cov and ft of libFuzzer's final statistics) and the failures
# found (their inputs in artifacts/<target>/), and exits non-zero when any
# was found.
#
#   sh scripts/fuzz.sh --write-seeds
#
# builds the seed writer (tests/fuzz/make_seeds.cpp) and writes the seeds of
# fuzz_command_server and fuzz_convert into tests/fuzz/<target>/seeds.
set -eu
cd "$(dirname "$0")/.."

mode=short
case "${1:-}" in
  --long) mode=long; shift ;;
  --write-seeds) mode=seeds; shift ;;
esac

# The build's tool chain, and clang with its libFuzzer and sanitizer
# run-times.
sh scripts/setup.sh clang libclang-rt-dev

build=${1:-build-fuzz}
targets=${FUZZ_TARGETS:-fuzz_pcf fuzz_command_server fuzz_convert fuzz_vxadmin_shell}
long_seconds=${LONG_SECONDS:-900}
mkdir -p "$build/obj" "$build/artifacts"
build=$(cd "$build" && pwd)

common="-D_FILE_OFFSET_BITS=64 -std=c++20 -g -O1 -fno-omit-frame-pointer -Wall -Wextra -Werror -pthread
  -fsanitize=address,undefined -fno-sanitize-recover=undefined
  -Ilib/vxai -Ilib/vxi -Iplatform/qi -Iplatform/svc -Iplatform/qm -Iserver -Itools/names
  -I$(pg_config --includedir)"

object_of() {
  echo "$build/obj/$(basename "$(dirname "$1")")_$(basename "$1" .cpp).o"
}

echo "== building the fuzz targets in $build"
# Every object is compiled in the background at once; a failed compile
# fails the build once all have ended.
pids=""
compile() {  # source, then clang's options
  source=$1
  shift
  clang++ $common "$@" -c "$source" -o "$(object_of "$source")" &
  pids="$pids $!"
}
finish() {
  status=0
  for pid in $pids; do wait "$pid" || status=1; done
  pids=""
  [ "$status" -eq 0 ] || { echo "fuzz.sh: the build failed" >&2; exit 1; }
}
base=""
# The common services and the queue manager (which the library's queue
# calls reach) use exceptions internally; they are not the code under test,
# so they get no coverage instrumentation, but for the conversion of
# messages on get, which fuzz_convert tests.
for source in platform/svc/*.cpp platform/qm/*.cpp; do
  if [ "$source" = platform/qm/convert.cpp ]; then
    compile "$source" -fsanitize=fuzzer-no-link
  else
    compile "$source"
  fi
  base="$base $(object_of "$source")"
done
# The library is built as its own build builds it: no exceptions, no RTTI.
# Its comparisons are not traced: the tracing took two thirds of every run
# of fuzz_pcf (each item passes frames and checks), and the values it would
# find, the structure types and the selector ranges, are in the seed corpus.
for source in lib/vxai/*.cpp lib/vxi/*.cpp; do
  compile "$source" -fsanitize=fuzzer-no-link -fno-sanitize-coverage=trace-cmp -fno-exceptions \
    -fno-rtti
  base="$base $(object_of "$source")"
done
# The command server and the names of vxadmin, under test as they are.
server=""
for source in server/*.cpp; do
  compile "$source" -fsanitize=fuzzer-no-link
  server="$server $(object_of "$source")"
done
compile tools/names/vxnames.cpp -fsanitize=fuzzer-no-link
names="$(object_of tools/names/vxnames.cpp)"
# vxadmin's sources but its main, which the shell's target compiles in.
tool=""
for source in tools/vxadmin/*.cpp; do
  [ "$source" = tools/vxadmin/main.cpp ] && continue
  compile "$source" -fsanitize=fuzzer-no-link -DVX_VERSION='"fuzz"'
  tool="$tool $(object_of "$source")"
done

# A target's own source; vxadmin's main is compiled into its target.
compile_target() {
  clang++ $common -Itools/vxadmin -DVX_VERSION='"fuzz"' -fsanitize=fuzzer-no-link \
    -c "tests/fuzz/$1.cpp" \
    -o "$build/obj/$1.o" &
  pids="$pids $!"
}
link() {  # target, extra objects
  name=$1
  shift
  clang++ -pthread -fsanitize=fuzzer,address,undefined $base "$@" "$build/obj/$name.o" \
    -lsqlite3 -lpq -o "$build/$name"
}

if [ "$mode" = seeds ]; then
  finish
  clang++ $common -c tests/fuzz/make_seeds.cpp -o "$build/obj/make_seeds.o"
  clang++ -pthread -fsanitize=address,undefined $base "$build/obj/make_seeds.o" -lsqlite3 -lpq \
    -o "$build/make_seeds"
  "$build/make_seeds" tests/fuzz
  exit 0
fi

for target in $targets; do
  case $target in
    fuzz_pcf | fuzz_convert | fuzz_command_server | fuzz_vxadmin_shell) compile_target "$target" ;;
    *) echo "fuzz.sh: no target $target" >&2; exit 2 ;;
  esac
done
finish
for target in $targets; do
  case $target in
    fuzz_pcf | fuzz_convert) link "$target" ;;
    fuzz_command_server) link "$target" $server ;;
    fuzz_vxadmin_shell) link "$target" $server "$names" $tool ;;
    *) echo "fuzz.sh: no target $target" >&2; exit 2 ;;
  esac
done

# Each target's seeds, dictionary and limits.  Requests and shell lines run
# a command server and a ping, or a whole shell, per input: they get more
# time per input than the pure functions.
seeds_of() {
  case $1 in
    fuzz_pcf) echo tests/fuzz/corpus ;;
    *) echo "tests/fuzz/${1#fuzz_}/seeds" ;;
  esac
}
options_of() {
  case $1 in
    fuzz_pcf) echo "-timeout=10" ;;
    fuzz_convert) echo "-timeout=10 -dict=tests/fuzz/convert/ccsids.dict" ;;
    fuzz_command_server) echo "-timeout=20 -dict=tests/fuzz/command_server/selectors.dict" ;;
    fuzz_vxadmin_shell) echo "-timeout=30 -dict=tests/fuzz/vxadmin_shell/words.dict" ;;
  esac
}
seconds_of() {
  if [ -n "${FUZZ_SECONDS:-}" ]; then echo "$FUZZ_SECONDS"
  elif [ "$1" = fuzz_pcf ]; then echo 60
  else echo 30
  fi
}

# One run of a target on a corpus directory; its output in a log file.
run() {  # target, seconds, corpus directory, log file
  mkdir -p "$build/artifacts/$1" "$build/reports/$1" "$build/trace"
  # shellcheck disable=SC2046
  ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    VXSVC_TRACE=off VXSVC_REPORT_DIR="$build/reports/$1" VXSVC_TRACE_DIR="$build/trace" \
    "$build/$1" -max_total_time="$2" -rss_limit_mb=2048 $(options_of "$1") \
    -print_final_stats=1 -artifact_prefix="$build/artifacts/$1/" "$3" "$(seeds_of "$1")" \
    > "$4" 2>&1
}

# libFuzzer's figures of a log: executions, cov, ft, executions per second.
figures() {
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$1" | tail -n 1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$1" | tail -n 1)
  cov=$(grep -o 'cov: [0-9]*' "$1" | tail -n 1 | cut -d' ' -f2)
  ft=$(grep -o 'ft: [0-9]*' "$1" | tail -n 1 | cut -d' ' -f2)
}

if [ "$mode" = short ]; then
  # libFuzzer adds what it finds to its first corpus directory: give it a
  # scratch one, and the seeds second, so that the seeds stay as committed.
  for target in $targets; do
    seconds=$(seconds_of "$target")
    rm -rf "$build/scratch/$target"
    mkdir -p "$build/scratch/$target"
    log="$build/$target.log"
    echo "== fuzzing $target for $seconds seconds (log: $log)"
    if ! run "$target" "$seconds" "$build/scratch/$target" "$log"; then
      tail -n 60 "$log" >&2
      echo "$target failed: the input is in $build/artifacts/$target/" >&2
      exit 1
    fi
    figures "$log"
    echo "$target: ${executions:-?} executions (${rate:-?}/s), cov ${cov:-?}, ft ${ft:-?}"
  done
  exit 0
fi

# The campaign.
summary=""
failed=0
for target in $targets; do
  corpus="$build/corpus/$target"
  mkdir -p "$corpus"
  echo "== $target: $long_seconds seconds on $corpus"
  total=0
  failures=0
  left=$long_seconds
  round=0
  while [ "$left" -gt 0 ]; do
    round=$((round + 1))
    log="$build/$target.long.$round.log"
    started=$(date +%s)
    if ! run "$target" "$left" "$corpus" "$log"; then
      failures=$((failures + 1))
      grep -m 1 -E '^(==[0-9]+==ERROR|fuzz_|SUMMARY|ALARM)' "$log" >&2 || true
    fi
    figures "$log"
    total=$((total + ${executions:-0}))
    left=$((left - ($(date +%s) - started)))
    # A target that keeps failing at once has nothing more to show.
    [ "$failures" -lt 20 ] || break
  done
  line="$target: $total executions, cov ${cov:-?}, ft ${ft:-?}, failures $failures, corpus $(ls "$corpus" | wc -l) inputs"
  echo "$line"
  summary="$summary$line
"
  [ "$failures" -eq 0 ] || failed=1
done
echo "== campaign of $long_seconds seconds per target"
printf '%s' "$summary"
[ "$failed" -eq 0 ] || echo "inputs of the failures: $build/artifacts/<target>/" >&2
exit "$failed"
