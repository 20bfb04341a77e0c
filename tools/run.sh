#!/usr/bin/env bash
# One entry point for a fresh Debian 12 machine (run as root the first time,
# so that missing packages can be installed):
#   bash tools/run.sh selfcheck   build the DLL and the runner, run the self-check runner under Wine
#   bash tools/run.sh test        build everything and run the whole test suite under Wine
#   bash tools/run.sh bench       build and run the benchmark program under Wine (--full: full counts)
# Missing packages are installed with apt-get. BUILD_DIR overrides ./build.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
mode=${1:-test}
shift || true

# Debian's wine64 holds the 64-bit loader; only the wine package puts wine and
# wineserver on the path, and --no-install-recommends would leave it out.
# clang runs the public headers' second compiler check (skipped without it).
packages=(cmake ninja-build g++-mingw-w64-x86-64-posix wine wine64 googletest python3 clang)
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

# Every program this script and the build run, with the package that brings it.
for need in cmake:cmake ninja:ninja-build x86_64-w64-mingw32-g++-posix:g++-mingw-w64-x86-64-posix \
            wine:wine wineserver:wine python3:python3; do
  if ! command -v "${need%%:*}" >/dev/null 2>&1; then
    echo "error: '${need%%:*}' is not on the PATH; install the Debian package '${need#*:}'" >&2
    exit 127
  fi
done
if [ ! -f /usr/src/googletest/CMakeLists.txt ]; then
  echo "error: GoogleTest sources missing in /usr/src/googletest; install the Debian package 'googletest'" >&2
  exit 127
fi

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# Build only what the mode runs. Two cores: keep the build from starving
# the tests that follow it.
case "$mode" in
  selfcheck) cmake --build "$build" -j 2 --target ZendraPlatform zendra_selfcheck ;;
  bench) cmake --build "$build" -j 2 --target ZendraPlatform zendra_bench ;;
  *) cmake --build "$build" -j 2 ;;
esac

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
