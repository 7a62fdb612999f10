#!/bin/sh
# Checks that the library $1 reaches the queue manager only through the
# dynamic symbols of its entries: each of them is undefined in the library
# (no copy inside it), and the library is not bound to its own symbols.
library=$1
status=0
undefined=$(nm -D --undefined-only "$library" | awk '{print $2}')
defined=$(nm -D --defined-only "$library" | awk '{print $3}')
for entry in qmCONN qmCONNX qmDISC qmOPEN qmCLOSE qmGET qmPUT qmPUT1 qmINQ qmSET qmCMIT qmBACK qmBEGIN; do
  if ! printf '%s\n' "$undefined" | grep -qx "$entry"; then
    echo "not an undefined dynamic symbol: $entry"
    status=1
  fi
  if printf '%s\n' "$defined" | grep -qx "$entry"; then
    echo "defined inside the library: $entry"
    status=1
  fi
done
if readelf -d "$library" | grep -Eq 'SYMBOLIC'; then
  echo "the library is bound to its own symbols (-Bsymbolic)"
  status=1
fi
[ $status -eq 0 ] && echo "the 13 queue-manager entries are reached through dynamic symbols"
exit $status
