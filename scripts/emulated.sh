#!/bin/sh
# Exits 0 when this machine runs 32-bit programs through qemu's user-mode
# emulator (set up by setup.sh where the kernel cannot run them), 1 when it
# runs them natively.  valgrind and LeakSanitizer cannot work under the
# emulator: the scripts that use them ask here first.
grep -qs '^enabled' /proc/sys/fs/binfmt_misc/qemu-i386
