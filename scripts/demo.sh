#!/usr/bin/env bash
# The main job on built-in data: kxha demo writes a destination of six backup
# sessions over three VHD-based disks into a new folder, prepares the session
# bitmaps, locks the range, reads every disk's union bitmap and checks it
# against the writes it made, then marks the range converted. Then it builds
# a demo guest volume (a Windows 7 guest from VMware) from the demo data next
# to kxha.exe, repairs it for Hyper-V as `kxha guest fixup` does, prints what
# changed and checks it against what the repair must change. Exits non-zero
# on any failure or mismatch.
# usage: demo.sh [BUILD_DIR]
set -euo pipefail
build=${1:-build}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
kxha() { "$here/wine-run.sh" "$build/bin/kxha.exe" "$@"; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "== kxha version"; kxha version
echo; echo "== kxha demo Z:${work//\//\\}\\demo"
kxha demo "Z:${work//\//\\}\\demo"
echo; echo "== kxha log --lines 8"; kxha log --lines 8
