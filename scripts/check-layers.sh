#!/usr/bin/env bash
# Fails when an #include points up the layer order of the library:
#   common < log < platform < feature folders (bitmap, session, guestfix,
#   hyperv, host, disk, iso) < exports < tools
# A file may include its own layer and any layer below it.
# usage: check-layers.sh [SOURCE_ROOT]
set -euo pipefail
root=${1:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)}
cd "$root"

rank() {
  case "$1" in
    common) echo 0 ;; log) echo 1 ;; platform) echo 2 ;;
    bitmap|session|guestfix|hyperv|host|disk|iso) echo 3 ;;
    exports) echo 4 ;; tools) echo 5 ;; *) echo -1 ;;
  esac
}

layers=(common log platform bitmap session guestfix hyperv host disk iso exports tools)
bad=0 checked=0
while IFS= read -r -d '' file; do
  from=${file%%/*}
  rf=$(rank "$from")
  while IFS= read -r line; do
    to=$(sed -E 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"([^/"]+)\/.*/\1/' <<<"${line#*:}")
    rt=$(rank "$to")
    checked=$((checked + 1))
    if [ "$rt" -gt "$rf" ]; then
      echo "layer violation: $file:${line%%:*} includes $to/ (a $from file may include only its own layer and those below)"
      bad=1
    fi
  done < <(grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"[a-z_]+/' "$file" || true)
done < <(find "${layers[@]}" -type f \( -name '*.h' -o -name '*.cpp' -o -name '*.hpp' \) -print0 2>/dev/null)

echo "layer check: $checked includes checked"
exit $bad
