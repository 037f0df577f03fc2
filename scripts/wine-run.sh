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
exec "$loader" "$@"
