#!/bin/sh
# Builds everything and runs the whole suite: plain, then the threaded tests
# under valgrind's helgrind (a data race or a lock-order problem fails them),
# then a minute of fuzzing of the message reader and writer, then the whole
# suite again under AddressSanitizer with UndefinedBehaviorSanitizer.  Exits
# non-zero on the first failure.
set -eu
cd "$(dirname "$0")/.."

sh scripts/setup.sh

jobs=$(nproc)

echo "== plain build and tests"
cmake -S . -B build -G Ninja -DVX_SANITIZE=OFF
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs" -LE helgrind

echo "== threaded tests under helgrind"
# Where 32-bit programs run only through qemu (see setup.sh), valgrind
# cannot run them at all: the threaded tests then have run plainly above and
# run again under the sanitizers below, and this step says why it is left out.
if sh scripts/emulated.sh; then
  echo "skipped: valgrind cannot run 32-bit programs on this machine (its kernel runs them through qemu)"
else
  ctest --test-dir build --output-on-failure -j "$jobs" -L helgrind
fi

echo "== fuzzing the message reader and writer"
sh scripts/fuzz.sh

echo "== AddressSanitizer and UndefinedBehaviorSanitizer build and tests"
# LeakSanitizer stops the process's threads with ptrace, which qemu's
# user-mode emulator does not offer (a checked process hangs as it ends):
# there leaks go unchecked, and a smaller quarantine of freed blocks keeps
# the sanitizer's allocator within what the emulator maps well.  The
# options hold for the build too, which runs each test program to list its
# tests.
sanitizer_options=detect_leaks=1:allocator_may_return_null=1
if sh scripts/emulated.sh; then
  echo "leaks are not checked: 32-bit programs run through qemu here"
  sanitizer_options=detect_leaks=0:allocator_may_return_null=1:quarantine_size_mb=16
fi
export ASAN_OPTIONS=$sanitizer_options
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
cmake -S . -B build-asan -G Ninja -DVX_SANITIZE=ON
cmake --build build-asan -j "$jobs"
ctest --test-dir build-asan --output-on-failure -j "$jobs"
