#!/usr/bin/env bash
# The main job: installs what is missing, builds, and runs the demo on the embedded SQLite
# catalogue (no server, no data of yours needed).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
BUILD_DIR=${BUILD_DIR:-build}
exec "$BUILD_DIR/bin/kestrel" demo "$@"
