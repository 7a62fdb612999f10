#!/bin/sh
# Every reason code and every attribute or parameter selector of the public
# headers has its entry in the table of names (tools/names/vxnames.cpp) or,
# for an attribute of a queue, in the table of queue attributes.
#
#   check_names.sh SOURCE_DIR
set -u
source=$1
table=$source/tools/names/vxnames.cpp
attributes=$source/platform/qi/queue_attributes.h
missing=0
for name in $(sed -n -E 's/^#define ((RC|ATTR|PARM)_[A-Z0-9_]+) .*/\1/p' \
    "$source/lib/vxai/vxai.h" "$source/platform/qi/vxqi_records.h" "$source/server/command_server.h" | sort -u); do
  [ "$name" = ATTR_FIRST_CHAR_SELECTOR ] && continue
  if ! grep -q "\"$name\"" "$table" "$attributes"; then
    echo "no entry for $name in $table or $attributes"
    missing=1
  fi
done
exit $missing
