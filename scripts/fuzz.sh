#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer) in their own
# build directory and runs each for a bounded time on a corpus seeded from the shared data and
# synthetic files.
#   scripts/fuzz.sh [SECONDS per target (default 60)] [TARGET...]
# Environment: KESTREL_FUZZ_BUILD (default build-fuzz), KESTREL_SHARED_DATA (default ../shared/data).
# Crashes land in <build>/fuzz-work/<target>/crashes; the exit status is non-zero when one was found.
# DCMTK reserves a value's declared length (up to 4 GB) before reading it and releases it when the
# file ends first: single allocations up to 4 GB are allowed, the resident size is what is limited.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}; shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(importheader qdcmfile referenceimage volume bitvolume)
build=${KESTREL_FUZZ_BUILD:-$src/build-fuzz}
data=${KESTREL_SHARED_DATA:-$src/../shared/data}
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$(dirname "$src")}

# The fuzzers need clang and its libFuzzer runtime, which the build and the tests do not.
"$src"/scripts/setup.sh --packages
for p in clang libclang-rt-14-dev; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" ||
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$p" >/dev/null
done

CC=clang CXX=clang++ cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKESTREL_FUZZ=ON -DKESTREL_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j2 --target fuzz_seeds $(printf 'fuzz_%s ' "${targets[@]}")

work=$build/fuzz-work
seeds=$work/seeds
rm -rf "$seeds"; mkdir -p "$seeds"
"$build/bin/fuzz_seeds" "$seeds"
# Real files under 64 KiB (libFuzzer's inputs stay small) join the DICOM seeds.
if [ -d "$data" ]; then
  find "$data" -type f -size -64k ! -name '*.md' -print0 | head -z -n 200 |
    while IFS= read -r -d '' f; do cp "$f" "$seeds/dicom/$(echo "$f" | md5sum | cut -c1-12)"; done
fi

status=0
for t in "${targets[@]}"; do
  case $t in
    volume) seed=$seeds/volume; maxlen=8192 ;;
    bitvolume) seed=$seeds/bitvolume; maxlen=4096 ;;
    *) seed=$seeds/dicom; maxlen=65536 ;;
  esac
  corpus=$work/$t/corpus; crashes=$work/$t/crashes
  mkdir -p "$corpus" "$crashes"
  log=$work/$t/run.log
  echo "== fuzz_$t: $seconds s"
  if ! (cd "$work/$t" && ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1 \
        QT_QPA_PLATFORM=offscreen "$build/bin/fuzz_$t" -max_total_time="$seconds" -max_len=$maxlen \
        -rss_limit_mb=2048 -malloc_limit_mb=4200 -timeout=20 -artifact_prefix="$crashes/" "$corpus" "$seed" >"$log" 2>&1); then
    status=1
    echo "   finding(s) in $crashes:"; ls "$crashes"
  fi
  grep -E '^(#[0-9]+|Done)' "$log" | tail -1
done
exit $status
