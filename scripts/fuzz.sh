#!/bin/sh
# Builds the PCF fuzz target natively (64-bit) with clang, libFuzzer,
# AddressSanitizer with its leak check and UndefinedBehaviorSanitizer, and
# runs it for a bounded time on a copy of the seed corpus.  Exits non-zero on any crash, leak, time-out, sanitizer report
# or broken invariant; the input that caused it is left in the build
# directory's artifacts/.
#
#   sh scripts/fuzz.sh [build directory]      (default: build-fuzz; relative
#                                             to the repository root)
#   FUZZ_SECONDS=600 sh scripts/fuzz.sh       (default: 60 seconds)
set -eu
cd "$(dirname "$0")/.."

# The build's tool chain, and clang with its libFuzzer and sanitizer
# run-times.
sh scripts/setup.sh clang libclang-rt-dev

build=${1:-build-fuzz}
seconds=${FUZZ_SECONDS:-60}
mkdir -p "$build/obj" "$build/artifacts"
build=$(cd "$build" && pwd)

common="-D_FILE_OFFSET_BITS=64 -std=c++20 -g -O1 -fno-omit-frame-pointer -Wall -Wextra -Werror -pthread
  -fsanitize=address,undefined -fno-sanitize-recover=undefined
  -Ilib/vxai -Ilib/vxi -Iplatform/qi -Iplatform/svc -Iplatform/qm"

echo "== building fuzz_pcf in $build"
objects=""
# The common services and the queue manager (which the library's queue
# calls reach) use exceptions internally; they are not the code under test,
# so they get no coverage instrumentation.
for source in platform/svc/*.cpp platform/qm/*.cpp; do
  object="$build/obj/$(basename "$(dirname "$source")")_$(basename "$source" .cpp).o"
  clang++ $common -c "$source" -o "$object"
  objects="$objects $object"
done
# The library is built as its own build builds it: no exceptions, no RTTI.
# Its comparisons are not traced: the tracing took two thirds of every run
# (each item passes frames and checks), and the values it would find, the
# structure types and the selector ranges, are in the seed corpus.
for source in lib/vxai/*.cpp lib/vxi/*.cpp; do
  object="$build/obj/$(basename "$(dirname "$source")")_$(basename "$source" .cpp).o"
  clang++ $common -fsanitize=fuzzer-no-link -fno-sanitize-coverage=trace-cmp -fno-exceptions \
    -fno-rtti -c "$source" -o "$object"
  objects="$objects $object"
done
clang++ $common -fsanitize=fuzzer-no-link -c tests/fuzz/fuzz_pcf.cpp -o "$build/obj/fuzz_pcf.o"
clang++ -pthread -fsanitize=fuzzer,address,undefined $objects "$build/obj/fuzz_pcf.o" \
  -lsqlite3 -o "$build/fuzz_pcf"

# libFuzzer adds what it finds to its first corpus directory: give it a
# scratch one, and the seed corpus second, so that the seeds stay as
# committed.
rm -rf "$build/corpus"
mkdir -p "$build/corpus" "$build/reports" "$build/trace"

echo "== fuzzing for $seconds seconds"
if ! ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  VXSVC_TRACE=off VXSVC_REPORT_DIR="$build/reports" VXSVC_TRACE_DIR="$build/trace" \
  "$build/fuzz_pcf" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
  -print_final_stats=1 -artifact_prefix="$build/artifacts/" "$build/corpus" tests/fuzz/corpus; then
  echo "fuzz_pcf failed: the input is in $build/artifacts/" >&2
  exit 1
fi
