#!/bin/sh
# What scripts rely on: bytes that are not text go through get --json and
# back through put --base64 unchanged, text stays text; a command server that
# does not answer is a time-out that names the wait; on a terminal a message's
# control bytes are escaped and a shell prompts.
#
#   check_scripts.sh VXADMIN
set -eu
vxadmin=$1
work=$(mktemp -d)
data=$work/data
server=""
cleanup() {
  [ -z "$server" ] || kill -CONT "$server" 2> /dev/null || true
  "$vxadmin" --data "$data" stop > /dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
vx() { "$vxadmin" --data "$data" "$@"; }
fail() {
  printf '%s\n' "$*" >&2
  exit 1
}
# The value of "key" in the first message of a get --json document.
message_field() { tr -d '\n' < "$1" | sed -n "s/.*\"$2\": *\"\\([^\"]*\\)\".*/\\1/p"; }

echo "== binary data through get --json and put --base64"
printf 'A\000\377\001\200 end\n' > "$work/binary"
vx create queue BIN.A 2> /dev/null > /dev/null
vx create queue BIN.B > /dev/null
vx put BIN.A --file "$work/binary" > /dev/null
vx get BIN.A --json > "$work/got.json"
[ "$(message_field "$work/got.json" encoding)" = base64 ] || fail "not base64: $(cat "$work/got.json")"
message_field "$work/got.json" data | vx put BIN.B --base64 > /dev/null
vx get BIN.B --raw > "$work/back"
cmp "$work/binary" "$work/back" || fail "the bytes came back changed"

printf 'plain text\n' > "$work/text"
vx put BIN.A --file "$work/text" > /dev/null
vx get BIN.A --json > "$work/got.json"
[ "$(message_field "$work/got.json" encoding)" = text ] || fail "not text: $(cat "$work/got.json")"
message_field "$work/got.json" data | grep -qx 'plain text\\n' || fail "data: $(cat "$work/got.json")"

echo "== a command server that does not answer"
vx start > /dev/null
server=$(cat "$data/QM1.server.pid")
kill -STOP "$server"
status=0
vx --wait 300 ping > /dev/null 2> "$work/err" || status=$?
kill -CONT "$server"
server=""
[ "$status" = 1 ] || fail "ping of a stopped server: exit $status"
grep -qx "vxadmin: ping: the command server did not answer within 300 ms" "$work/err" ||
  fail "ping of a stopped server: $(cat "$work/err")"
vx --wait 5000 ping > /dev/null || fail "the server answers no more after it went on"
vx stop > /dev/null

echo "== on a terminal"
printf 'bell\007 escape\033[31m\n' > "$work/control"
vx put BIN.A --file "$work/control" > /dev/null
script -qec "'$vxadmin' --data '$data' get BIN.A" /dev/null > "$work/tty" < /dev/null
grep -q 'bell\\x07 escape\\x1b\[31m' "$work/tty" || fail "not escaped: $(cat -v "$work/tty")"
vx put BIN.A --file "$work/control" > /dev/null
vx get BIN.A --raw | cmp -s - "$work/control" || fail "escaped when not on a terminal"
# The prompt is written for each line read, and once more at the end.
printf 'list queues BIN.A\n' |
  script -qec "'$vxadmin' --data '$data' shell" /dev/null > "$work/tty"
[ "$(grep -o 'vxadmin> ' "$work/tty" | wc -l)" -ge 2 ] || fail "no prompt: $(cat -v "$work/tty")"
printf 'list queues BIN.A\n' | vx shell 2> "$work/err" > /dev/null
[ ! -s "$work/err" ] || fail "a prompt without a terminal: $(cat "$work/err")"
echo "scripts get the bytes, the time-out and the escapes they rely on"
