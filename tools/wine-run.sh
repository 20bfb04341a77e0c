#!/usr/bin/env bash
# Runs a Windows program under Wine with the project's own prefix.
# The prefix lives in the build tree (ZENDRA_WINEPREFIX overrides it).
set -e
here=$(cd "$(dirname "$0")" && pwd)
: "${ZENDRA_WINEPREFIX:=$here/../build/wineprefix}"
export WINEPREFIX="$ZENDRA_WINEPREFIX"
export WINEDEBUG="${WINEDEBUG:--all}"
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree=d;mshtml=d}"
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  mkdir -p "$WINEPREFIX"
  wine wineboot -i >/dev/null 2>&1 || true
  wineserver -w || true
fi
exec wine "$@"
