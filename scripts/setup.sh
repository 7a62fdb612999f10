#!/bin/sh
# Installs what the build needs when it is missing: a 32-bit C and C++
# tool chain with its sanitizer run-times, CMake, Ninja, the GoogleTest
# sources, the header-only CLI11 and nlohmann/json that vxadmin uses,
# pkg-config, valgrind with the 32-bit C library's debugging symbols (helgrind
# needs them), the 32-bit SQLite run-time with the (architecture-independent)
# SQLite header of the native development package, and any further packages
# named as arguments.  Safe to run
# again; does nothing when all is there.
#
#   sh scripts/setup.sh [package ...]
set -eu

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo

# The 32-bit packages (name:i386) come from the i386 architecture.
if ! dpkg --print-foreign-architectures | grep -qx i386; then
  echo "adding the i386 architecture"
  $SUDO dpkg --add-architecture i386
  added_architecture=yes
else
  added_architecture=no
fi

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
need libcli11-dev
need nlohmann-json3-dev
need pkg-config
need valgrind
need libc6-dbg:i386
need libsqlite3-0:i386
need libsqlite3-dev

if [ -n "$missing" ] || [ "$added_architecture" = yes ]; then
  # A mirror that is being synchronised can fail one index; what the other
  # indexes hold is still enough, and the install below says if it is not.
  $SUDO apt-get update -qq || echo "apt-get update reported errors; installing from the indexes at hand" >&2
fi
if [ -n "$missing" ]; then
  echo "installing:$missing"
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq $missing
fi
