#!/usr/bin/env bash
# The whole test suite: installs what is missing, builds (warnings as errors), starts a private
# MariaDB server for the MySQL tests, runs every CTest suite, and stops the server again.
# Under CI (CI=true) the fuzz targets then run briefly (KESTREL_TEST_FUZZ_SECONDS each, default 20;
# also when that variable is set), and the suite runs a second time on a build with
# AddressSanitizer and UndefinedBehaviorSanitizer (in build-asan/; also with KESTREL_TEST_SANITIZE=1).
# Arguments go to ctest (scripts/test.sh -L sqlite, scripts/test.sh -R import).
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
export KESTREL_WERROR=1
echo "== Checking the layering of the library"
scripts/check-layering.sh
scripts/setup.sh
BUILD_DIR=${BUILD_DIR:-build}

server_dir=$(mktemp -d /tmp/kestrel-mariadb.XXXXXX)
cleanup() { "$ROOT"/scripts/mariadb-test-server.sh stop "$server_dir" || true; rm -rf "$server_dir"; }
trap cleanup EXIT
echo "== Starting the MariaDB test server"
KESTREL_TEST_MYSQL_SOCKET=$(scripts/mariadb-test-server.sh start "$server_dir")
export KESTREL_TEST_MYSQL_SOCKET
export MYSQL_UNIX_PORT=$KESTREL_TEST_MYSQL_SOCKET
export TCP_NODELAY=1
# The viewer's tests open real windows: ctest runs inside a private X server of xvfb-run.
XVFB=(xvfb-run -a -s "-screen 0 1600x1000x24")

echo "== Running the tests"
(cd "$BUILD_DIR" && "${XVFB[@]}" ctest --output-on-failure -j2 "$@")

if [ "${CI:-}" = "true" ] || [ -n "${KESTREL_TEST_FUZZ_SECONDS:-}" ]; then
  echo "== Fuzzing each entry point for ${KESTREL_TEST_FUZZ_SECONDS:-20} s"
  scripts/fuzz.sh "${KESTREL_TEST_FUZZ_SECONDS:-20}"
fi

if [ "${CI:-}" = "true" ] || [ -n "${KESTREL_TEST_SANITIZE:-}" ]; then
  echo "== Building with AddressSanitizer and UndefinedBehaviorSanitizer"
  KESTREL_SANITIZE=1 BUILD_DIR=build-asan scripts/setup.sh
  export ASAN_OPTIONS="suppressions=$ROOT/tests/sanitizers/asan.supp:detect_leaks=1"
  export LSAN_OPTIONS="suppressions=$ROOT/tests/sanitizers/lsan.supp:print_suppressions=0"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  echo "== Running the tests under the sanitizers"
  # The package test links outside programs against the library, which a sanitized build cannot serve.
  (cd build-asan && "${XVFB[@]}" ctest --output-on-failure -j2 -LE package "$@")
fi
