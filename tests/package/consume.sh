#!/usr/bin/env bash
# Installs the build tree into a fresh prefix, then configures, builds and runs the consumer.
set -euo pipefail
build=$1; consumer=$2
work=$(mktemp -d /tmp/kestrel-package.XXXXXX)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
for d in bin lib include/kestrel lib/cmake/Kestrel config database dicom; do
  [ -d "$work/prefix/$d" ] || { echo "installed tree lacks $d/"; exit 1; }
done
cmake -S "$consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" >/dev/null
# The consumer runs from the installed bin/ so that it finds config/ and database/ beside it.
cp "$work/build/consumer" "$work/prefix/bin/"
"$work/prefix/bin/consumer"
