#!/usr/bin/env bash
# One entry point for a fresh Debian 12 machine (run as root):
#   bash tools/run.sh selfcheck   build the library and run the self-check runner under Wine
#   bash tools/run.sh test        build everything and run the whole test suite under Wine
#   bash tools/run.sh bench       build and run the benchmark program under Wine
# Missing packages are installed with apt-get. BUILD_DIR overrides ./build.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
mode=${1:-test}
shift || true

packages=(cmake ninja-build g++-mingw-w64-x86-64-posix wine64 googletest)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# Two cores: keep the build from starving the tests that follow it.
cmake --build "$build" -j 2

# Create the Wine prefix once, before anything runs in parallel in it.
export ZENDRA_WINEPREFIX=$build/wineprefix
"$root/tools/wine-run.sh" cmd /c exit >/dev/null 2>&1 || true

case "$mode" in
  selfcheck)
    cd "$build/bin" && exec "$root/tools/wine-run.sh" zendra_selfcheck.exe "$@" ;;
  test)
    cd "$build" && exec ctest --output-on-failure --no-tests=error "$@" ;;
  bench)
    cd "$build/bin" && exec "$root/tools/wine-run.sh" zendra_bench.exe "$@" ;;
  *)
    echo "usage: $0 selfcheck|test|bench [args]" >&2; exit 2 ;;
esac
