#!/usr/bin/env bash
# Installs the build tree into a fresh prefix, then builds against it with find_package(Kestrel):
# a tiny consumer and the C++ example of README.md (taken from the README itself), and runs both
# from the installed bin/ so that they find config/ and database/ beside them.
set -euo pipefail
build=$1; consumer=$2; readme=$3
work=$(mktemp -d /tmp/kestrel-package.XXXXXX)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
for d in bin lib include/kestrel lib/cmake/Kestrel config database dicom; do
  [ -d "$work/prefix/$d" ] || { echo "installed tree lacks $d/"; exit 1; }
done
# The installed headers are the interface: exactly the listed ones, no private header among them.
if ! diff <(cd "$work/prefix/include" && find . -type f | sed 's|^\./||' | sort) \
          "$(dirname "$0")/installed-headers.txt"; then
  echo "the installed headers differ from tests/package/installed-headers.txt"; exit 1
fi

mkdir -p "$work/example"
awk '/^```cpp$/ {on=1; next} /^```$/ {if (on) exit} on {print}' "$readme" > "$work/example/main.cpp"
[ -s "$work/example/main.cpp" ] || { echo "README has no C++ example"; exit 1; }
sed 's/consumer/example/g' "$consumer/CMakeLists.txt" > "$work/example/CMakeLists.txt"

for project in "$consumer" "$work/example"; do
  name=$(basename "$project"); [ "$name" = consumer ] || name=example
  cmake -S "$project" -B "$work/build-$name" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
  cmake --build "$work/build-$name" >/dev/null
  cp "$work/build-$name/$name" "$work/prefix/bin/"
done

"$work/prefix/bin/consumer"
# The example imports a phantom study written by the installed host.
"$work/prefix/bin/kestrel" demo --out "$work/demo" >/dev/null
out=$("$work/prefix/bin/example" "$work/demo/phantom")
echo "$out"
echo "$out" | grep -q "T1 axial: 60 images, axial MIP 128x128"
