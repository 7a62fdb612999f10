#!/bin/sh
# Builds the library and runs the sample programs that show it at work:
# bagdemo (bags and their messages in memory) and qmdemo (a queue manager
# and its command server in the same process: a queue created by command,
# bags put and got as messages, every reply of an inquiry printed).
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target bagdemo qmdemo
./build/samples/bagdemo
echo
./build/samples/qmdemo
