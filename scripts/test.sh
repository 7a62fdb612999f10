#!/bin/sh
# Builds everything and runs every check, 64-bit first, then 32-bit.  Exits
# non-zero on the first failure.
#
#   1. 64-bit build, plainly: every test.
#   2. The threaded suites under valgrind's helgrind.
#   3. The sample programs and a vxadmin session under valgrind's memcheck,
#      leak check on: zero errors.
#   4. The threaded suites under ThreadSanitizer (a build of their own).
#   5. Every test under AddressSanitizer with UndefinedBehaviorSanitizer,
#      leak check on.
#   6. Fuzzing, natively, leak check on: a minute of the message reader and
#      writer, then 30 seconds each of requests put on the command queue, the
#      queue manager's conversion of messages and vxadmin's shell lines
#      (scripts/fuzz.sh).
#   7. 32-bit build, plainly: every test, natively where the kernel runs
#      32-bit programs, through qemu's emulator where it does not.  Its
#      package test installs both builds into one prefix and builds and runs
#      a 64-bit and a 32-bit consumer.
set -eu
cd "$(dirname "$0")/.."

sh scripts/setup.sh --i386

jobs=$(nproc)
# Test programs that hold suites named "...Threads".
threaded="test_qm_threads test_qm_convert test_command_server"

echo "== 1. 64-bit build, plain: every test"
cmake -S . -B build -G Ninja -DVX_SANITIZE=
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs" -LE 'helgrind|memcheck'

echo "== 2. 64-bit: threaded suites under helgrind"
ctest --test-dir build --output-on-failure -j "$jobs" -L helgrind

echo "== 3. 64-bit: samples and a vxadmin session under memcheck"
ctest --test-dir build --output-on-failure -j "$jobs" -L memcheck

echo "== 4. 64-bit: threaded suites under ThreadSanitizer"
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
cmake -S . -B build-tsan -G Ninja -DVX_SANITIZE=thread
# shellcheck disable=SC2086
cmake --build build-tsan -j "$jobs" --target $threaded qm_peer
ctest --test-dir build-tsan --output-on-failure -j "$jobs" -R 'Threads\.'

echo "== 5. 64-bit: AddressSanitizer and UndefinedBehaviorSanitizer, leak check on"
# The options hold for the build too, which runs each test program to list
# its tests.
export ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
cmake -S . -B build-asan -G Ninja -DVX_SANITIZE=address
cmake --build build-asan -j "$jobs"
ctest --test-dir build-asan --output-on-failure -j "$jobs"

echo "== 6. fuzzing: the message reader and writer, the command server, conversion, vxadmin shell"
sh scripts/fuzz.sh

echo "== 7. 32-bit build, plain: every test"
cmake -S . -B build-i386 -G Ninja -DVX_ARCH=i386 -DVX_SANITIZE= -DVX_PACKAGE_BUILDS="$PWD/build"
cmake --build build-i386 -j "$jobs"
ctest --test-dir build-i386 --output-on-failure -j "$jobs" -LE 'helgrind|memcheck'
