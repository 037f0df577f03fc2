#!/usr/bin/env bash
# Creates the Wine prefix once and keeps a persistent wineserver for it, so
# that Wine's helper processes do not hold the test runner's pipes open.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
export WINEPREFIX="$(realpath -m "${KX_WINEPREFIX:-$here/../build/wineprefix}")"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
mkdir -p "$(dirname "$WINEPREFIX")"

# Runs a command with no descriptor of the caller's but /dev/null: whatever
# it leaves running (the server, Wine's services) must never hold a pipe of
# make, CTest or a test open.
detached() (
  for fd in /proc/$BASHPID/fd/*; do
    n=${fd##*/}
    [ "$n" -gt 2 ] && eval "exec $n>&-"
  done
  exec "$@" </dev/null >/dev/null 2>&1
)
exec 9>"$WINEPREFIX.lock"
flock 9
if [ ! -f "$WINEPREFIX/.kx-ready" ]; then
  detached wineboot -i || true
  detached wineserver -w
  touch "$WINEPREFIX/.kx-ready"
fi
# A persistent server: started once, reused by every program of the run.
detached wineserver -p || true
# Wine's own services (services.exe, winedevice.exe, plugplay.exe) live as
# long as the server; started here with no inherited descriptors, they never
# hold a caller's pipe open after its program has ended.
# Only this prefix's services count: another build tree's prefix may have
# its own running.
prefix_services_running() {
  local pid
  for pid in $(pgrep -f 'system32.services\.exe' 2>/dev/null); do
    tr '\0' '\n' <"/proc/$pid/environ" 2>/dev/null | grep -qxF "WINEPREFIX=$WINEPREFIX" && return 0
  done
  return 1
}
if ! prefix_services_running; then
  detached wine cmd.exe /c exit || true
fi
