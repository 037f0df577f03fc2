#!/usr/bin/env bash
# The main job on built-in data: runs the operator's tool under Wine.
set -euo pipefail
build=${1:-build}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
kxha() { "$here/wine-run.sh" "$build/bin/kxha.exe" "$@"; }
echo "== kxha version"; kxha version
echo; echo "== kxha log --lines 12"; kxha log --lines 12
