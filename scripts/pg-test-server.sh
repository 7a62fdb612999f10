#!/bin/sh
# A throwaway PostgreSQL server for the tests of the PostgreSQL store.
#
#   sh scripts/pg-test-server.sh start DIR    start one; DIR/uri and DIR/tcp_uri name it
#   sh scripts/pg-test-server.sh restart DIR  stop it at once and start it again
#   sh scripts/pg-test-server.sh stop DIR     stop it and remove its cluster
#
# The cluster lives in a folder of its own under /tmp (the server's socket
# path must stay short), owned by the postgres user when this runs as root,
# since the server refuses to run as root.  It listens on a Unix socket in
# that folder and on 127.0.0.1, on the first free port from a number picked
# at random, so that several builds' servers can run side by side.  Its role
# "vxtest" is a superuser, trusted without a password: only this machine can
# reach it.  fsync is off (a test server need not survive a crash of the
# machine, only a restart of itself), unless VX_PG_FSYNC=on: a benchmark
# measures a server that syncs as a real one does.
#
# DIR/uri names the database through the socket, DIR/tcp_uri through TCP on
# loopback (what another host would use).
set -eu

action=${1:?usage: pg-test-server.sh start|restart|stop DIR}
dir=${2:?usage: pg-test-server.sh start|restart|stop DIR}

bin=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -1)
[ -n "$bin" ] || { echo "no PostgreSQL server is installed (sh scripts/setup.sh)" >&2; exit 1; }

as_server() {
  if [ "$(id -u)" -eq 0 ]; then runuser -u postgres -- "$@"; else "$@"; fi
}

start_server() {
  as_server "$bin/pg_ctl" -D "$cluster/data" -l "$cluster/server.log" -w -t 60 \
    -o "-p $port -k $cluster -c listen_addresses=127.0.0.1" start >/dev/null
}

case "$action" in
start)
  [ ! -e "$dir/cluster" ] || sh "$0" stop "$dir"
  mkdir -p "$dir"
  cluster=$(mktemp -d /tmp/vx-pg.XXXXXX)
  [ "$(id -u)" -ne 0 ] || chown postgres: "$cluster"
  as_server "$bin/initdb" -D "$cluster/data" -U vxtest -A trust --no-sync -E UTF8 \
    --locale=C >"$cluster/initdb.log" 2>&1 ||
    { cat "$cluster/initdb.log" >&2; exit 1; }
  cat >>"$cluster/data/postgresql.conf" <<EOF
fsync = ${VX_PG_FSYNC:-off}
full_page_writes = ${VX_PG_FSYNC:-off}
max_connections = 300
EOF
  echo "$cluster" >"$dir/cluster"
  port=$(( 20000 + $(od -An -N2 -tu2 /dev/urandom) % 20000 ))
  tries=0
  until start_server; do
    tries=$((tries + 1))
    [ "$tries" -lt 20 ] || { cat "$cluster/server.log" >&2; exit 1; }
    port=$((port + 1))
  done
  echo "$port" >"$dir/port"
  "$bin/createdb" -h "$cluster" -p "$port" -U vxtest vxtest
  echo "postgresql:///vxtest?host=$cluster&port=$port&user=vxtest" >"$dir/uri"
  echo "postgresql://vxtest@127.0.0.1:$port/vxtest" >"$dir/tcp_uri"
  echo "PostgreSQL test server on port $port, cluster $cluster"
  ;;
restart)
  cluster=$(cat "$dir/cluster")
  port=$(cat "$dir/port")
  as_server "$bin/pg_ctl" -D "$cluster/data" -m immediate -w stop >/dev/null
  start_server
  ;;
stop)
  [ -e "$dir/cluster" ] || exit 0
  cluster=$(cat "$dir/cluster")
  as_server "$bin/pg_ctl" -D "$cluster/data" -m immediate -w stop >/dev/null 2>&1 || true
  rm -rf "$cluster"
  rm -f "$dir/cluster" "$dir/port" "$dir/uri" "$dir/tcp_uri"
  ;;
*)
  echo "usage: pg-test-server.sh start|restart|stop DIR" >&2
  exit 2
  ;;
esac
