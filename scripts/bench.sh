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

# The ISO bench: CreateIsoImage through the built-in writer next to
# xorriso and genisoimage making a Joliet image of the same tree
# ($work/iso-tree, made once and kept), KX_ISO_RUNS rounds (default 3). The
# tree is read once before the first round so that every tool starts from
# the page cache, and the order of the four turns each round; each tool's
# median is printed with its runs. The fourth is the floor: the least any
# Win32 program does to copy the tree into one file under Wine (a folder
# walk, one open, read and close per file, 1 MiB writes, no layout). Then
# the writer's peak working set on a tree with four times the data (the
# large files hard-linked four times), its phases, what single file-system
# calls cost under Wine, and what writing 2 GiB alone costs (Wine and dd).
median() { printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

iso_bench() {
  local exe=$1 tree="$work/iso-tree" runs=${KX_ISO_RUNS:-3} r k out start
  local -a builtin=() xorr=() genis=() floor=() peak=()
  iso_wine() { (cd "$build/bin" && "$here/wine-run.sh" "$exe" "$wine_work" "$@" </dev/null) | tr -d '\r'; }
  iso_ref() {
    start=$(date +%s%N)
    $1 -quiet -J -o "$work/iso-reference.iso" "$2" 2>/dev/null
    awk -v a="$start" -v b="$(date +%s%N)" 'BEGIN { printf "%.3f\n", (b - a) / 1e9 }'
    rm -f "$work/iso-reference.iso"
  }
  iso_wine --tree
  find "$tree" -type f -exec cat {} + >/dev/null
  for ((r = 0; r < runs; r++)); do
    for k in 0 1 2 3; do
      case $(((r + k) % 4)) in
        0) out=$(iso_wine --once "${wine_work}\\iso-tree")
           builtin+=("$(sed -n 's/.*seconds=\([0-9.]*\).*/\1/p' <<<"$out")")
           peak+=("$(sed -n 's/.*peak_mib=\([0-9]*\).*/\1/p' <<<"$out")") ;;
        1) command -v xorriso >/dev/null && xorr+=("$(iso_ref "xorriso -as mkisofs" "$tree")") ;;
        2) command -v genisoimage >/dev/null && genis+=("$(iso_ref genisoimage "$tree")") ;;
        3) floor+=("$(iso_wine --floor "${wine_work}\\iso-tree" | sed -n 's/.*: \([0-9.]*\) s$/\1/p')") ;;
      esac
    done
  done
  printf 'built-in CreateIsoImage of the 2 GiB tree: median %s s (runs: %s), peak working set %s MiB\n' \
    "$(median "${builtin[@]}")" "${builtin[*]}" "$(median "${peak[@]}")"
  [ ${#xorr[@]} -gt 0 ] && printf 'reference: xorriso -as mkisofs -J: median %s s (runs: %s)\n' \
    "$(median "${xorr[@]}")" "${xorr[*]}"
  [ ${#genis[@]} -gt 0 ] && printf 'reference: genisoimage -J: median %s s (runs: %s)\n' \
    "$(median "${genis[@]}")" "${genis[*]}"
  printf 'floor: the tree copied into one file by the least Win32 work under Wine: median %s s (runs: %s)\n' \
    "$(median "${floor[@]}")" "${floor[*]}"
  local x4="$work/iso-tree-x4" i j
  if [ ! -d "$x4" ]; then
    mkdir -p "$x4.part"
    cp -al "$tree/small" "$x4.part/small"
    for i in 0 1 2 3; do for j in 0 1 2 3; do ln "$tree/large $i.bin" "$x4.part/large $i copy $j.bin"; done; done
    mv "$x4.part" "$x4"
  fi
  out=$(iso_wine --once "${wine_work}\\iso-tree-x4")
  printf 'built-in CreateIsoImage of the same tree with 4x the data (8 GiB): %s s, peak working set %s MiB\n' \
    "$(sed -n 's/.*seconds=\([0-9.]*\).*/\1/p' <<<"$out")" "$(sed -n 's/.*peak_mib=\([0-9]*\).*/\1/p' <<<"$out")"
  iso_wine --phases
  iso_wine --micro
  # Writing 2 GiB alone, under Wine and natively, one after the other: the
  # disk's share of every figure above at this moment.
  iso_wine --write 2048 1024
  rm -f "$work/iso-write.bin"
  start=$(date +%s%N)
  dd if=/dev/zero of="$work/iso-write.bin" bs=1M count=2048 status=none
  awk -v a="$start" -v b="$(date +%s%N)" 'BEGIN { printf "reference: dd of 2048 MiB in 1024 KiB chunks: %.3f s\n", (b - a) / 1e9 }'
  rm -f "$work/iso-write.bin"
}

status=0
regf_bench || { echo "bench.sh: regf_bench failed" >&2; status=1; }
for exe in "${benches[@]}"; do
  name=$(basename "$exe" .exe)
  if [ -n "${KX_BENCH_ONLY:-}" ] && [[ " $KX_BENCH_ONLY " != *" $name "* ]]; then continue; fi
  echo "== $name"
  if [ "$name" = iso_bench ]; then
    iso_bench "$exe" || { echo "bench.sh: iso_bench failed" >&2; status=1; }
    echo
    continue
  fi
  args=()
  [ "$name" = zek_bitmap_bench ] && args=("$wine_work" --keep)
  if ! (cd "$build/bin" && "$here/wine-run.sh" "$exe" "${args[@]}" </dev/null) | tr -d '\r'; then
    echo "bench.sh: $(basename "$exe") failed" >&2
    status=1
  fi
  [ "$name" = zek_bitmap_bench ] && references
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
