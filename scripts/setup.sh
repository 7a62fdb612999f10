#!/bin/sh
# Installs what the build needs when it is missing.  Safe to run again; does
# nothing when all is there.
#
#   sh scripts/setup.sh [--i386] [package ...]
#
# Always: the machine's own C and C++ tool chain (with its sanitizer
# run-times), CMake, Ninja, the GoogleTest sources, the header-only CLI11 and
# nlohmann/json that vxadmin uses, pkg-config, SQLite, valgrind with the C
# library's debugging symbols (helgrind and memcheck need them), strace (a
# test watches the syncs of a persistent put), zsh (a test loads vxadmin's
# completion script in it), PostgreSQL's client library
# and its server (the tests start a server of their own), and any further
# packages named as arguments.
#
# With --i386, also what the 32-bit build needs: the 32-bit tool chain, the
# 32-bit C library's debugging symbols, SQLite and PostgreSQL client
# run-times, and, on a machine whose kernel cannot execute 32-bit programs,
# qemu's user-mode emulator registered to run them.
set -eu

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo

i386=no
if [ "${1:-}" = --i386 ]; then
  i386=yes
  shift
fi

added_architecture=no
# The 32-bit packages (name:i386) come from the i386 architecture.
if [ "$i386" = yes ] && ! dpkg --print-foreign-architectures | grep -qx i386; then
  echo "adding the i386 architecture"
  $SUDO dpkg --add-architecture i386
  added_architecture=yes
fi

missing=""
need() { dpkg -s "$1" >/dev/null 2>&1 || missing="$missing $1"; }
for package in "$@"; do need "$package"; done
need g++
need cmake
need ninja-build
need googletest
need binutils
need clang-format
need libcli11-dev
need nlohmann-json3-dev
need pkg-config
need valgrind
# By architecture: with the 32-bit one installed too, the bare name is
# ambiguous and would always count as missing.
need "libc6-dbg:$(dpkg --print-architecture)"
need libsqlite3-dev
need strace
need zsh
need libpq-dev
need postgresql
if [ "$i386" = yes ]; then
  need gcc-multilib
  need g++-multilib
  need libc6-dbg:i386
  need libsqlite3-0:i386
fi

if [ -n "$missing" ] || [ "$added_architecture" = yes ]; then
  # A mirror that is being synchronised can fail one index; what the other
  # indexes hold is still enough, and the install below says if it is not.
  $SUDO apt-get update -qq || echo "apt-get update reported errors; installing from the indexes at hand" >&2
fi
if [ -n "$missing" ]; then
  echo "installing:$missing"
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq $missing
fi

[ "$i386" = yes ] || exit 0

# PostgreSQL's client library for 32-bit programs.  Its package is often not
# installable beside the native one: both must have the same version, and a
# mirror may carry security updates for one architecture only.  Then the
# 32-bit packages it needs (those the machine lacks) are unpacked into a
# folder of their own, which the dynamic loader is told about.
i386_libpq=/opt/vx-i386-libpq
if ! dpkg -s libpq5:i386 >/dev/null 2>&1 &&
   [ ! -e "$i386_libpq/usr/lib/i386-linux-gnu/libpq.so.5" ]; then
  echo "unpacking PostgreSQL's 32-bit client library into $i386_libpq"
  work=$(mktemp -d)
  chmod 755 "$work"  # apt downloads as its own user
  packages=$(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts \
      --no-breaks --no-replaces --no-enhances libpq5:i386 | grep -E '^[a-z0-9].*:i386$' | sort -u)
  for package in $packages; do
    dpkg -s "$package" >/dev/null 2>&1 || (cd "$work" && apt-get download -qq "$package")
  done
  $SUDO mkdir -p "$i386_libpq"
  for deb in "$work"/*.deb; do $SUDO dpkg-deb -x "$deb" "$i386_libpq"; done
  rm -rf "$work"
  printf '%s\n' "$i386_libpq/usr/lib/i386-linux-gnu" "$i386_libpq/lib/i386-linux-gnu" |
    $SUDO tee /etc/ld.so.conf.d/vx-i386-libpq.conf >/dev/null
  $SUDO ldconfig
fi

# Some virtual machines run a kernel that cannot execute 32-bit programs (it
# answers "Exec format error").  There the kernel is taught to hand them to
# qemu's user-mode emulator, so that the build's own programs and tests run
# as they would natively, only slower.
runs_32bit() {
  probe=$(mktemp -d)
  printf 'int main(void) { return 0; }\n' >"$probe/probe.c"
  result=1
  if cc -m32 "$probe/probe.c" -o "$probe/probe" && "$probe/probe" 2>/dev/null; then result=0; fi
  rm -rf "$probe"
  return $result
}
if ! runs_32bit; then
  echo "this kernel does not run 32-bit programs: running them through qemu-i386"
  if ! dpkg -s qemu-user-static >/dev/null 2>&1; then
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq qemu-user-static
  fi
  binfmt=/proc/sys/fs/binfmt_misc
  [ -e "$binfmt/register" ] || $SUDO mount -t binfmt_misc binfmt_misc "$binfmt"
  # The ELF header of an i386 executable or shared object, and the bits of it
  # that must match; "F" opens the emulator now, so it serves every process.
  [ -e "$binfmt/qemu-i386" ] ||
    printf '%s' ':qemu-i386:M::\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x03\x00:\xff\xff\xff\xff\xff\xfe\xfe\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff:/usr/bin/qemu-i386-static:F' |
    $SUDO tee "$binfmt/register" >/dev/null
  runs_32bit || { echo "32-bit programs still do not run" >&2; exit 1; }
fi
