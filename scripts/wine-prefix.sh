#!/usr/bin/env bash
# Creates the Wine prefix once and keeps a persistent wineserver for it, so
# that Wine's helper processes do not hold the test runner's pipes open.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
export WINEPREFIX="${KX_WINEPREFIX:-$here/../build/wineprefix}"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
mkdir -p "$(dirname "$WINEPREFIX")"
exec 9>"$WINEPREFIX.lock"
flock 9
if [ ! -f "$WINEPREFIX/.kx-ready" ]; then
  wineboot -i >/dev/null 2>&1 </dev/null 9>&- || true
  wineserver -w 9>&-
  touch "$WINEPREFIX/.kx-ready"
fi
# A persistent server: started once, reused by every program of the run.
wineserver -p >/dev/null 2>&1 </dev/null 9>&- || true
# Wine's own services (services.exe, winedevice.exe, plugplay.exe) live as
# long as the server; started here with no inherited descriptors, they never
# hold a caller's pipe open after its program has ended.
if ! pgrep -f 'system32.services\.exe' >/dev/null 2>&1; then
  wine cmd.exe /c exit >/dev/null 2>&1 </dev/null 9>&- || true
fi
