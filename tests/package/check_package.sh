#!/bin/sh
# Installs one or more builds (of different architectures) into one
# temporary prefix, then, for each architecture installed, builds the
# consumer program against the installed tree twice, with pkg-config and
# with find_package(VXAI), and runs both; the sample qmdemo is built and run
# against it as well.  Each installed vxadmin runs too.
#
#   check_package.sh SOURCE_DIR COMPILE_FLAGS BUILD_DIR [BUILD_DIR ...]
set -eu
source=$1 flags=$2
shift 2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

for build in "$@"; do
  cmake --install "$build" --prefix "$prefix" >> "$work/install.log"
done

for arch in x86_64-linux-gnu i386-linux-gnu; do
  libdir=$prefix/lib/$arch
  [ -e "$libdir/libvxai.so" ] || continue
  case $arch in
    i386-*) width=-m32 toolchain="-DCMAKE_TOOLCHAIN_FILE=$source/cmake/i386-linux.cmake"
            vxadmin=$libdir/vxai/vxadmin ;;
    *) width=-m64 toolchain="" vxadmin=$prefix/bin/vxadmin ;;
  esac

  echo "== $arch: pkg-config"
  PKG_CONFIG_PATH=$libdir/pkgconfig
  export PKG_CONFIG_PATH
  pkg-config --modversion vxai
  # shellcheck disable=SC2046,SC2086
  cc $width $flags -std=c99 -Wall -Wextra -Werror "$source/tests/package/consumer.c" \
    $(pkg-config --cflags --libs vxcmdsrv) -Wl,-rpath,"$libdir" -o "$work/consumer_pc_$arch"
  "$work/consumer_pc_$arch"
  # The sample program of the command server's round trip, as a user of the
  # package would build it.
  # shellcheck disable=SC2046,SC2086
  cc $width $flags -std=c99 -Wall -Wextra -Werror "$source/samples/qmdemo.c" \
    $(pkg-config --cflags --libs vxcmdsrv) -Wl,-rpath,"$libdir" -o "$work/qmdemo_$arch"
  "$work/qmdemo_$arch" > "$work/qmdemo_$arch.out"

  echo "== $arch: find_package(VXAI)"
  # The toolchain file's -m32 comes through the flags' initial values, which
  # a flags variable given on the command line would replace.
  set -- -DCMAKE_PREFIX_PATH="$prefix"
  [ -z "$toolchain" ] || set -- "$@" "$toolchain"
  [ -z "$flags" ] || set -- "$@" -DCMAKE_C_FLAGS="$width $flags" -DCMAKE_EXE_LINKER_FLAGS="$width $flags"
  cmake -S "$source/tests/package/consumer" -B "$work/consumer_$arch" "$@" > "$work/configure.log"
  cmake --build "$work/consumer_$arch" > "$work/build.log"
  "$work/consumer_$arch/consumer"

  echo "== $arch: installed vxadmin"
  "$vxadmin" --data "$work/data_$arch" ping
done

# The manual page and the completion scripts are the installed vxadmin's own.
echo "== vxadmin's manual page and completion scripts"
"$vxadmin" help --man | cmp - "$prefix/share/man/man1/vxadmin.1"
"$vxadmin" completion bash | cmp - "$prefix/share/bash-completion/completions/vxadmin"
"$vxadmin" completion zsh | cmp - "$prefix/share/zsh/site-functions/_vxadmin"
