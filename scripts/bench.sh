#!/usr/bin/env bash
# Benchmarks, each printing its figures side by side with a peer or a limit: image windowing,
# import (SQLite and MariaDB, then into catalogues already holding many images), volumes and slabs
# (with dcm2niix as the peer), network receive and send (with DCMTK's storescp/storescu), reformats
# (with scipy's map_coordinates as the peer), the viewer (wheel step to repainted plane, UI stalls
# during an import; against their goals). Installs and builds first; starts a private MariaDB server.
#   scripts/bench.sh [image|import|volume|network|reformat|viewer]...   (default: all)
#   KESTREL_BENCH_GROW=100000,1000000   catalogue sizes of the import's growth table (0: none)
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
scripts/setup.sh
if ! command -v dcm2niix >/dev/null; then
  apt-get install -y -qq --no-install-recommends dcm2niix >/dev/null || echo "dcm2niix not installed: the volume peer is left out"
fi
BUILD_DIR=${BUILD_DIR:-build}
server_dir=$(mktemp -d /tmp/kestrel-bench-mariadb.XXXXXX)
cleanup() { "$ROOT"/scripts/mariadb-test-server.sh stop "$server_dir" || true; rm -rf "$server_dir"; }
trap cleanup EXIT
# The benchmark's server commits durably (innodb_flush_log_at_trx_commit=1, MariaDB's default).
KESTREL_TEST_MYSQL_SOCKET=$(KESTREL_MARIADB_DURABLE=1 scripts/mariadb-test-server.sh start "$server_dir")
export KESTREL_TEST_MYSQL_SOCKET MYSQL_UNIX_PORT=$KESTREL_TEST_MYSQL_SOCKET TCP_NODELAY=1 QT_QPA_PLATFORM=offscreen
benches=("$@")
[ ${#benches[@]} -gt 0 ] || benches=(image import volume network reformat viewer)
for b in "${benches[@]}"; do
  echo "== bench_$b"
  args=()
  [ "$b" != import ] || args=(--grow "${KESTREL_BENCH_GROW:-100000,1000000}")
  "$BUILD_DIR/bin/bench_$b" "${args[@]}"
done
