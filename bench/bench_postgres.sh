#!/bin/sh
# The benchmark of the PostgreSQL store, run by hand:
#
#   sh bench/bench_postgres.sh [BUILD] [messages] [rounds]
#
# Starts a PostgreSQL server of its own that syncs its log as a real one
# does, then measures, with BUILD's programs (default build):
#   - one put and one get through the store, beside a plain INSERT and a
#     plain DELETE … RETURNING of the same rows on the same server
#     (bench_postgres);
#   - the queue manager shared by processes (bench_shared): first over the
#     SQLite store, then over the server through its Unix socket, then
#     through TCP on loopback, as a program on another host reaches it;
#     woken gets across processes, and throughput with 8 getter processes.
# Stops the server at the end.
set -eu
cd "$(dirname "$0")/.."
build=${1:-build}
messages=${2:-5000}
rounds=${3:-1000}
server=$(mktemp -d)
trap 'sh scripts/pg-test-server.sh stop "$server"; rm -rf "$server"' EXIT
VX_PG_FSYNC=on sh scripts/pg-test-server.sh start "$server"

echo "== the store beside plain statements"
"$build/bench/bench_postgres" "$(cat "$server/uri")" "$messages"
echo "== shared by processes: SQLite"
"$build/bench/bench_shared" "$rounds" "$messages"
echo "== shared by processes: PostgreSQL, Unix socket"
"$build/bench/bench_shared" --data "$(cat "$server/uri")" "$rounds" "$messages"
echo "== shared by processes: PostgreSQL, TCP on loopback"
"$build/bench/bench_shared" --data "$(cat "$server/tcp_uri")" "$rounds" "$messages"
