#!/bin/sh
# A persistent put that returned is on disk: between the put and its return
# the database's log is synced.  With VXQM_SYNC=normal it is not, which
# shows that the check can tell.
#
#   check_durable.sh QM_PEER        (strace from $VX_STRACE or PATH)
set -eu
peer=$1
strace=${VX_STRACE:-strace}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "$*" >&2
  exit 1
}
# The returns of puts (qm_peer writes a line after each) that no sync of the
# log preceded since the return before.
unsynced() {
  awk '/ write\(1</ { if (!synced) count++; synced = 0 }
       / f(data)?sync\([0-9]+<[^>]*\.db-wal>\)/ { synced = 1 }
       END { print count + 0 }' "$1"
}
# The leak checker of a sanitized build cannot run under ptrace.
ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
export ASAN_OPTIONS
for mode in full normal; do
  mkdir "$work/$mode"
  VXQM_DATA=$work/$mode VXQM_MEMORY_DIR=$work/$mode VXQM_SYNC=$mode \
    "$strace" -f -y -e trace=fdatasync,fsync,write -o "$work/$mode.trace" \
    "$peer" QM1 put SYSTEM.DEFAULT.LOCAL.QUEUE 20 P > "$work/$mode.out" ||
    fail "$mode: the peer failed"
  [ "$(wc -l < "$work/$mode.out")" -eq 20 ] || fail "$mode: not 20 puts: $(cat "$work/$mode.out")"
done
[ "$(unsynced "$work/full.trace")" -eq 0 ] ||
  fail "a put returned before the log was synced: $(grep -E 'write\(1<|sync' "$work/full.trace")"
[ "$(unsynced "$work/normal.trace")" -gt 0 ] ||
  fail "VXQM_SYNC=normal synced every put: the check cannot tell"
echo "every persistent put returned after a sync of the log"
