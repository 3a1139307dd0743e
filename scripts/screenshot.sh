#!/usr/bin/env bash
# The README's picture of the viewer: the built kestrel-viewer under a private X server, showing a
# real series of the shared data (the Siemens sagittal T1) in a catalogue of its own, written to
# docs/viewer.png.
#   scripts/screenshot.sh [SERIES_FOLDER]   (default: ../shared/data/siemens_t1_sag)
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
BUILD_DIR=${BUILD_DIR:-build}
SERIES=${1:-${KESTREL_SHARED_DATA:-$ROOT/../shared/data}/siemens_t1_sag}
[ -x "$BUILD_DIR/bin/kestrel-viewer" ] || { echo "build first: $BUILD_DIR/bin/kestrel-viewer is missing" >&2; exit 1; }
[ -d "$SERIES" ] || { echo "no series folder at $SERIES" >&2; exit 1; }
command -v xvfb-run >/dev/null || scripts/setup.sh --packages

work=$(mktemp -d /tmp/kestrel-screenshot.XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/config" "$work/work"
cp -r "$BUILD_DIR/config/." "$work/config/"
cat > "$work/config/database.ini" <<INI
[currentdatabase]
dbname=shot

[shot]
databaseType=QSQLITE
databaseName=$(realpath --relative-to="$BUILD_DIR/bin" "$work/catalogue.sqlite")
INI
printf '[registration]\ncachepath=%s\n' "$work/cache" > "$work/config/cache.ini"

cd "$work/work"
"$ROOT/$BUILD_DIR/bin/kestrel" --config "$work/config" import "$SERIES" >/dev/null
pk=$("$ROOT/$BUILD_DIR/bin/kestrel" --config "$work/config" tree | awk '$1 == "series" { print $2; exit }')
mkdir -p "$ROOT/docs"
xvfb-run -a -s "-screen 0 1600x1000x24" "$ROOT/$BUILD_DIR/bin/kestrel-viewer" --config "$work/config" \
  --series "$pk" --screenshot "$ROOT/docs/viewer.png"
echo "wrote docs/viewer.png (series $pk of $SERIES)"
