#!/usr/bin/env bash
# Runs every benchmark of a build tree under Wine and prints what it reports.
#   bash scripts/bench.sh [build]     (build folder, default "build")
# KX_BENCH_ONLY="log_bench zek_bitmap_bench" runs just the benchmarks named.
# Benchmarks print figures only; nothing here judges them.
# The registry hive engine's benchmark is built natively (clang -O2) and
# times python3-hivex doing the same edits on a SOFTWARE-like hive of about
# 27 MB, made once by tests/native/regf/hive_tool.py (kept in KX_BENCH_WORK).
# The bitmap-file benchmark writes about 4.5 GB of disk images into
# KX_BENCH_WORK (a temporary folder unless set; a kept folder is reused and
# saves the 2 minutes of making them) and, as outside references, times
# qemu-img reading the same images' allocation maps and a native Linux program
# (bench/native/pread_floor.cpp, built here with the host compiler) doing the
# floor's reads with pread.
set -euo pipefail
build=${1:-build}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
case "$build" in /*) ;; *) build="$PWD/$build" ;; esac
export KX_WINEPREFIX="${KX_WINEPREFIX:-$build/wineprefix}"
shopt -s nullglob
benches=("$build"/bin/*_bench.exe)
if [ ${#benches[@]} -eq 0 ]; then
  echo "bench.sh: no *_bench.exe in $build/bin (build first)" >&2
  exit 1
fi
work=${KX_BENCH_WORK:-}
if [ -z "$work" ]; then
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
fi
mkdir -p "$work"
wine_work="Z:${work//\//\\}"

pread_floor=""
cxx=${HOST_CXX:-$(command -v clang++ || command -v g++ || true)}
if [ -n "$cxx" ]; then
  pread_floor="$work/pread_floor"
  "$cxx" -O2 -std=c++20 -I"$here/.." "$here/../bench/native/pread_floor.cpp" -o "$pread_floor" || pread_floor=""
fi

references() {
  local zek
  for zek in "$work"/VStore/S0000000001/*.zek; do
    [ -n "$pread_floor" ] && printf 'reference: %s: %s\n' "$(basename "$zek")" "$("$pread_floor" "$zek")"
    command -v qemu-img >/dev/null || continue
    local start ms
    start=$(date +%s%N)
    qemu-img map --output=json --image-opts "driver=vpc,force_size_calc=current_size,file.filename=$zek" >/dev/null
    ms=$(( ($(date +%s%N) - start) / 1000000 ))
    printf 'reference: qemu-img map of %s: %d.%03d s\n' "$(basename "$zek")" $((ms / 1000)) $((ms % 1000))
  done
}

regf_bench() {
  local root hive
  root=$(cd "$here/.." && pwd)
  hive="$work/software-like-30000.hive"
  echo "== regf_bench (native)"
  if [ ! -f "$hive" ]; then
    /usr/bin/python3 "$root/tests/native/regf/hive_tool.py" empty "$hive.part" 3
    /usr/bin/python3 "$root/tests/native/regf/hive_tool.py" fill "$hive.part" 30000 1
    mv "$hive.part" "$hive"
  fi
  clang++ -std=c++20 -O2 -DNDEBUG -I"$root" -I"$root/tests/native" -o "$work/regf_bench" \
    "$root/bench/native/regf_bench.cpp" "$root"/platform/regf/*.cpp
  "$work/regf_bench" "$hive" "$root/tests/native/regf/hive_tool.py"
  echo
}

# The ISO bench's outside references: xorriso and genisoimage make a Joliet
# image of the same tree (kept in $work/iso-tree) in the same run.
iso_references() {
  local tool start ms
  for tool in "xorriso -as mkisofs" genisoimage; do
    command -v "${tool%% *}" >/dev/null || continue
    start=$(date +%s%N)
    $tool -quiet -J -o "$work/iso-reference.iso" "$work/iso-tree" 2>/dev/null
    ms=$(( ($(date +%s%N) - start) / 1000000 ))
    printf 'reference: %s -J of the same tree: %d.%03d s, image %d MB\n' "$tool" $((ms / 1000)) $((ms % 1000)) \
      $(( $(stat -c %s "$work/iso-reference.iso") / 1000000 ))
    rm -f "$work/iso-reference.iso"
  done
}

status=0
regf_bench || { echo "bench.sh: regf_bench failed" >&2; status=1; }
for exe in "${benches[@]}"; do
  name=$(basename "$exe" .exe)
  if [ -n "${KX_BENCH_ONLY:-}" ] && [[ " $KX_BENCH_ONLY " != *" $name "* ]]; then continue; fi
  echo "== $name"
  args=()
  [ "$name" = zek_bitmap_bench ] && args=("$wine_work" --keep)
  [ "$name" = iso_bench ] && args=("$wine_work")
  if ! (cd "$build/bin" && "$here/wine-run.sh" "$exe" "${args[@]}" </dev/null) | tr -d '\r'; then
    echo "bench.sh: $(basename "$exe") failed" >&2
    status=1
  fi
  [ "$name" = zek_bitmap_bench ] && references
  [ "$name" = iso_bench ] && iso_references
  echo
done
# The VHDX library's sequential read (native, -O2) against qemu-img convert
# on a 4 GiB dynamic VHDX with every block present, made once by qemu-img and
# qemu-io in KX_BENCH_WORK and reused when kept.
vhdx_read_bench() {
  local root image
  root=$(cd "$here/.." && pwd)
  image="$work/vhdx-4g-full.vhdx"
  echo "== vhdx_read_bench (native)"
  if [ ! -f "$image" ]; then
    qemu-img create -q -f vhdx -o subformat=dynamic "$image.part" 4G
    qemu-io -f vhdx -c 'write -P 0x5a 0 1G' -c 'write -P 0xa5 1G 1G' -c 'write -P 0x3c 2G 1G' \
      -c 'write -P 0xc3 3G 1G' "$image.part" >/dev/null
    mv "$image.part" "$image"
  fi
  clang++ -std=c++20 -O2 -DNDEBUG -I"$root" -I"$root/tests/native" -o "$work/vhdx_read_bench" \
    "$root/bench/native/vhdx_read_bench.cpp" "$root"/platform/vhdx/*.cpp "$root"/platform/vhd/*.cpp
  "$work/vhdx_read_bench" "$image"
  echo
}
if [ -z "${KX_BENCH_ONLY:-}" ] || [[ " $KX_BENCH_ONLY " == *" vhdx_read_bench "* ]]; then
  vhdx_read_bench || { echo "bench.sh: vhdx_read_bench failed" >&2; status=1; }
fi
exit $status
