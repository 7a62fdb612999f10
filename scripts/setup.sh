#!/bin/sh
# Installs what the build needs when it is missing: a 32-bit C and C++
# tool chain with its sanitizer run-times, CMake, Ninja and the GoogleTest
# sources, and any further packages named as arguments.  Safe to run again;
# does nothing when all is there.
#
#   sh scripts/setup.sh [package ...]
set -eu

missing=""
need() { dpkg -s "$1" >/dev/null 2>&1 || missing="$missing $1"; }
for package in "$@"; do need "$package"; done
need gcc-multilib
need g++-multilib
need cmake
need ninja-build
need googletest
need binutils
need clang-format

if [ -n "$missing" ]; then
  echo "installing:$missing"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq $missing
fi
