#!/usr/bin/env bash
# Installs the package into a staging folder, builds the consumer project
# with find_package(KestrixHA) and runs it under Wine.
set -euo pipefail
src=$1 build=$2
stage=$build/consumer-stage
rm -rf "$stage" "$build/consumer"
cmake --install "$build" --prefix "$stage" >/dev/null
cmake -S "$src/tests/consumer" -B "$build/consumer" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$src/cmake/toolchain-mingw64.cmake" -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$build/consumer" >/dev/null
cp "$stage/bin/KestrixHA.dll" "$build/consumer/"
"$src/scripts/wine-run.sh" "$build/consumer/consumer.exe" 'C:\windows\system32\*.exe'
