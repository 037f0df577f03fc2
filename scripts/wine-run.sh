#!/usr/bin/env bash
# Runs a Windows program under Wine in the build tree's own prefix.
# The prefix lives beside the build (never ~/.wine) and is created once.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
export WINEPREFIX="${KX_WINEPREFIX:-$here/../build/wineprefix}"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
"$here/wine-prefix.sh"
exec wine "$@"
