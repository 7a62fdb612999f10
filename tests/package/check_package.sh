#!/bin/sh
# Installs the build into a temporary prefix, then builds the consumer
# program against the installed tree twice, with pkg-config and with
# find_package(VXAI), and runs both.  The installed vxadmin runs too.
#
#   check_package.sh BUILD_DIR SOURCE_DIR [COMPILE_FLAGS]
set -eu
build=$1 source=$2 flags=${3:-}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" > "$work/install.log"
libdir=$(dirname "$(find "$prefix" -name libvxai.so | head -n 1)")

echo "== pkg-config"
PKG_CONFIG_PATH=$libdir/pkgconfig
export PKG_CONFIG_PATH
pkg-config --modversion vxai
# shellcheck disable=SC2046,SC2086
cc -m32 $flags -std=c99 -Wall -Wextra -Werror "$source/tests/package/consumer.c" \
  $(pkg-config --cflags --libs vxcmdsrv) -Wl,-rpath,"$libdir" -o "$work/consumer_pc"
"$work/consumer_pc"

echo "== find_package(VXAI)"
# The toolchain file's -m32 comes through the flags' initial values, which
# a flags variable given on the command line would replace.
set -- -DCMAKE_TOOLCHAIN_FILE="$source/cmake/i386-linux.cmake" -DCMAKE_PREFIX_PATH="$prefix"
[ -z "$flags" ] || set -- "$@" -DCMAKE_C_FLAGS="-m32 $flags" -DCMAKE_EXE_LINKER_FLAGS="-m32 $flags"
cmake -S "$source/tests/package/consumer" -B "$work/consumer" "$@" > "$work/configure.log"
cmake --build "$work/consumer" > "$work/build.log"
"$work/consumer/consumer"

echo "== installed vxadmin"
"$prefix/bin/vxadmin" --data "$work/data" ping
