#!/bin/sh
# Checks that every name listed in $2 is exported by the library $1 as a
# plain (unmangled) dynamic symbol, and that no C++-mangled name leaks out.
library=$1
names=$2
exported=$(nm -D --defined-only "$library" | awk '{print $3}')
status=0
for name in $(grep -v '^#' "$names"); do
  if ! printf '%s\n' "$exported" | grep -qx "$name"; then
    echo "not exported: $name"
    status=1
  fi
done
mangled=$(printf '%s\n' "$exported" | grep '^_Z' || true)
if [ -n "$mangled" ]; then
  echo "mangled names exported:"
  echo "$mangled"
  status=1
fi
[ $status -eq 0 ] && echo "all $(grep -vc '^#' "$names") names exported, none mangled"
exit $status
