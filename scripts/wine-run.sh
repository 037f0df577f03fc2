#!/usr/bin/env bash
# Runs a Windows program under Wine in the build tree's own prefix.
# The prefix lives beside the build (never ~/.wine) and is created once.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
export WINEPREFIX="$(realpath -m "${KX_WINEPREFIX:-$here/../build/wineprefix}")"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
"$here/wine-prefix.sh"
# The 64-bit loader directly: Debian's "wine" wrapper warns about a missing
# 32-bit Wine on every start, which would mix into the programs' output.
loader=/usr/lib/wine/wine64
[ -x "$loader" ] || loader=wine
# The program's output goes through a file of its own: a Wine process the
# program starts on demand (a service, the debugger) inherits its output
# descriptors and may outlive it, and a pipe held that way would keep the
# caller (CTest, make) waiting long after the program has ended. This script
# waits for the program itself, then passes its output on.
out=$(mktemp "${TMPDIR:-/tmp}/kx-wine-run.XXXXXX")
trap 'rm -f "$out"' EXIT
rc=0
"$loader" "$@" >"$out" 2>&1 </dev/null || rc=$?
cat "$out"
exit $rc
