#!/usr/bin/env bash
# The whole test suite: installs what is missing, builds (warnings as errors), starts a private
# MariaDB server for the MySQL tests, runs every CTest suite, and stops the server again.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
export KESTREL_WERROR=1
scripts/setup.sh
BUILD_DIR=${BUILD_DIR:-build}

server_dir=$(mktemp -d /tmp/kestrel-mariadb.XXXXXX)
cleanup() { "$ROOT"/scripts/mariadb-test-server.sh stop "$server_dir" || true; rm -rf "$server_dir"; }
trap cleanup EXIT
echo "== Starting the MariaDB test server"
export KESTREL_TEST_MYSQL_SOCKET=$(scripts/mariadb-test-server.sh start "$server_dir")
export MYSQL_UNIX_PORT=$KESTREL_TEST_MYSQL_SOCKET
export TCP_NODELAY=1

echo "== Running the tests"
cd "$BUILD_DIR"
ctest --output-on-failure -j2 "$@"
