#!/usr/bin/env bash
# Native Linux checks of the VHD library, the registry hive engine and the
# PE machine reader: builds
# tests/native with clang under AddressSanitizer and UndefinedBehaviorSanitizer,
# runs the test suites (with their qemu, libvhdi, hivex, regfexport and
# reglookup cross-checks), then short bounded fuzzing runs.
# usage: native-tests.sh [BUILD_DIR]     (default: build-native)
# FUZZ_SECONDS overrides the length of each fuzzing run (0 skips them).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-$root/build-native}
fuzz_seconds=${FUZZ_SECONDS:-30}
jobs=${JOBS:-2}
[ "$jobs" -gt 2 ] && jobs=2

generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root/tests/native" -B "$build" "${generator[@]}" \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
fi
cmake --build "$build" -j "$jobs" --target vhd_native_tests vhd_fuzz regf_native_tests regf_fuzz pe_native_tests pe_fuzz

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

echo "== native VHD tests"
"$build/vhd_native_tests" --gtest_brief=1
echo "== native registry hive tests"
"$build/regf_native_tests" --gtest_brief=1
echo "== native PE machine reader tests"
"$build/pe_native_tests" --gtest_brief=1

fuzz() {  # name corpus max_len
  local name=$1 corpus=$2 max_len=$3 work
  echo "== fuzzing $name for ${fuzz_seconds}s"
  work=$(mktemp -d)
  cp -r "$root/fuzz/corpus/$corpus" "$work/corpus"
  mkdir -p "$work/artifacts"
  if ! "$build/$name" "$work/corpus" -max_total_time="$fuzz_seconds" -rss_limit_mb=2048 \
      -max_len="$max_len" -timeout=20 -print_final_stats=1 -artifact_prefix="$work/artifacts/" \
      >"$work/fuzz.log" 2>&1; then
    tail -n 60 "$work/fuzz.log"
    mkdir -p "$build/fuzz-artifacts"
    cp "$work"/artifacts/* "$build/fuzz-artifacts/" 2>/dev/null || true
    rm -rf "$work"
    echo "fuzzing found a failure; inputs kept in $build/fuzz-artifacts" >&2
    exit 1
  fi
  grep -E '^(#[0-9]+ +DONE|Done|stat::number_of_executed_units|stat::peak_rss_mb)' "$work/fuzz.log" || true
  rm -rf "$work"
}

if [ "$fuzz_seconds" -gt 0 ]; then
  fuzz vhd_fuzz vhd 262144
  fuzz regf_fuzz regf 131072
  fuzz pe_fuzz pe 8192
fi

# The VHDX library: its tests (with the qemu-img, qemu-io and libvhdi
# cross-checks) and a bounded fuzzing run.
cmake --build "$build" -j "$jobs" --target vhdx_native_tests vhdx_fuzz
echo "== native VHDX tests"
"$build/vhdx_native_tests" --gtest_brief=1
if [ "$fuzz_seconds" -gt 0 ]; then
  fuzz vhdx_fuzz vhdx 65536
fi
# ISO images: the image layout, judged by xorriso, isoinfo and isovfy.
cmake --build "$build" -j "$jobs" --target iso_native_tests
echo "== native ISO image layout tests"
"$build/iso_native_tests" --gtest_brief=1
