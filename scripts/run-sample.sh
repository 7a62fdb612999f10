#!/bin/sh
# Builds the library and runs the sample program that shows it at work.
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target bagdemo
./build/samples/bagdemo
