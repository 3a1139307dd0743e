#!/usr/bin/env bash
# Starts or stops a private MariaDB server for the tests: its own data directory, a Unix socket
# and 127.0.0.1 only, Debian's default case-sensitive table names, no root password.
#   scripts/mariadb-test-server.sh start DIR   -> prints the socket path
#   scripts/mariadb-test-server.sh stop DIR
# The tests' server writes its log to disk once a second (a crash may lose the last second);
# KESTREL_MARIADB_DURABLE=1 makes every commit durable, as a user's server runs by default.
set -euo pipefail
cmd=$1; dir=$(realpath -m "$2")
datadir=$dir/data; sock=$dir/mysqld.sock; pidfile=$dir/mysqld.pid
case "$cmd" in
start)
  mkdir -p "$dir"
  if [ ! -d "$datadir/mysql" ]; then
    mariadb-install-db --no-defaults --datadir="$datadir" --user=root \
      --auth-root-authentication-method=normal >"$dir/install.log" 2>&1
  fi
  # Any free port on the loopback; tests connect through the socket.
  port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
  mariadbd --no-defaults --datadir="$datadir" --user=root --port="$port" --bind-address=127.0.0.1 \
    --socket="$sock" --pid-file="$pidfile" --skip-log-bin --innodb-buffer-pool-size=64M \
    --innodb-flush-log-at-trx-commit="$([ "${KESTREL_MARIADB_DURABLE:-}" = 1 ] && echo 1 || echo 2)" \
    --max-connections=500 >"$dir/server.log" 2>&1 &
  echo $! >"$dir/server.pid"
  for _ in $(seq 1 120); do
    if mariadb-admin --no-defaults --socket="$sock" -uroot ping >/dev/null 2>&1; then
      echo "$sock"; exit 0
    fi
    kill -0 "$(cat "$dir/server.pid")" 2>/dev/null || break
    sleep 0.5
  done
  echo "MariaDB test server did not start; see $dir/server.log" >&2
  tail -20 "$dir/server.log" >&2 || true
  exit 1
  ;;
stop)
  if [ -f "$dir/server.pid" ]; then
    pid=$(cat "$dir/server.pid")
    kill "$pid" 2>/dev/null || true
    for _ in $(seq 1 60); do kill -0 "$pid" 2>/dev/null || break; sleep 0.5; done
    kill -9 "$pid" 2>/dev/null || true
    rm -f "$dir/server.pid"
  fi
  ;;
*) echo "usage: $0 start|stop DIR" >&2; exit 2 ;;
esac
