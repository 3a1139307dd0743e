#!/usr/bin/env bash
# Checks the library's layering: a subsystem includes only headers of its own or of a lower
# subsystem, and programs (app/, hostkit/, viewer/, bench/, synthetic/, the package consumer)
# include no private header (*_p.h). Prints one line per violation; exits 1 when there is any.
#   scripts/check-layering.sh [ROOT]
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
cd "$root"

# Rank of each subsystem: lower ranks are the foundation. Peers of one rank stay apart, except
# where a pair is allowed below.
declare -A rank=(
  [platform]=0
  [geometry]=1 [simd]=1
  [dicom]=2
  [image]=3
  [catalog]=4
  [hierarchy]=5
  [volume]=6 [import]=6 [network]=6
  [anonymize]=7 [maintenance]=7
  [reformat]=8
)
# Peers that may use each other (from, to).
allowed_peers=" "

# Which subsystem owns each header name of the library (public headers are included bare).
declare -A owner=()
for sub in "${!rank[@]}"; do
  [ -d "kestrel/$sub" ] || continue
  for h in kestrel/"$sub"/*.h; do
    [ -e "$h" ] && owner[$(basename "$h")]=$sub
  done
done

failures=0
fail() { echo "$1"; failures=$((failures + 1)); }

for sub in "${!rank[@]}"; do
  [ -d "kestrel/$sub" ] || continue
  while IFS= read -r line; do
    file=${line%%:*}
    inc=$(sed -E 's/.*#include "([^"]+)".*/\1/' <<<"$line")
    if [[ $inc == */* ]]; then target=${inc%%/*}; else target=${owner[$inc]:-}; fi
    [ -n "$target" ] && [ -n "${rank[$target]:-}" ] || continue
    [ "$target" = "$sub" ] && continue
    if (( rank[$target] > rank[$sub] )); then
      fail "$file: includes \"$inc\" of $target, a higher subsystem than $sub"
    elif (( rank[$target] == rank[$sub] )) && [[ $allowed_peers != *" $sub>$target "* ]]; then
      fail "$file: includes \"$inc\" of its peer $target"
    fi
  done < <(grep -rn --include='*.h' --include='*.cpp' -H '^#include "' "kestrel/$sub" | cut -d: -f1,3-)
done

# Programs see the installed interface only.
for dir in app hostkit viewer bench synthetic tests/package; do
  [ -d "$dir" ] || continue
  while IFS= read -r line; do
    fail "${line%%:*}: a program includes the private header $(sed -E 's/.*#include "([^"]+)".*/\1/' <<<"$line")"
  done < <(grep -rn --include='*.h' --include='*.cpp' -H '^#include ".*_p\.h"' "$dir" | cut -d: -f1,3-)
done

if (( failures > 0 )); then
  echo "layering: $failures violation(s)"
  exit 1
fi
echo "layering: clean"
