#!/usr/bin/env bash
# Builds the library, the tool and the tests, and runs every test.
#   scripts/test.sh              plain build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UBSan build in build-asan/
#   scripts/test.sh --fuzz       also builds the libFuzzer targets (clang) in build-fuzz/
#   scripts/test.sh --tsan       ThreadSanitizer build in build-tsan/: the threads and
#                                packaging tests, and the rest of the suite
#   scripts/test.sh --windows    tolimage.dll for 64-bit and 32-bit Windows (mingw-w64)
#                                in build-win64/ and build-win32/, tested under Wine
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-plain}
case "$mode" in
  plain)
    bash scripts/deps.sh
    cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build build -j"$(nproc)"
    ctest --test-dir build --output-on-failure -j"$(nproc)"
    ;;
  --sanitize)
    bash scripts/deps.sh
    cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DTL_SANITIZE=ON >/dev/null
    cmake --build build-asan -j"$(nproc)"
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      ctest --test-dir build-asan --output-on-failure -j"$(nproc)"
    ;;
  --tsan)
    bash scripts/deps.sh
    cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTL_TSAN=ON >/dev/null
    cmake --build build-tsan -j"$(nproc)"
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
      ctest --test-dir build-tsan --output-on-failure -j"$(nproc)"
    ;;
  --fuzz)
    bash scripts/deps.sh fuzz
    CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTL_FUZZ=ON -DTL_TESTS=OFF >/dev/null
    cmake --build build-fuzz -j"$(nproc)"
    ;;
  --windows)
    bash scripts/deps.sh windows
    wine64=$(command -v wine64 || echo /usr/lib/wine/wine64)
    wineserver=$(command -v wineserver || echo /usr/lib/wine/wineserver64)
    export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
    # No test may wait on a window: Wine gets no display to open one on.
    unset DISPLAY WAYLAND_DISPLAY
    # The native tool, which the Windows build is compared with file by file.
    cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build build -j"$(nproc)" --target tolimage_cli
    for bits in 64 32; do
      arch=x86_64; [ "$bits" = 32 ] && arch=i686
      dir=build-win$bits
      export WINEPREFIX=$PWD/build-win64/wineprefix
      runner=$wine64
      if [ "$bits" = 32 ]; then
        # Debian's 32-bit Wine is a package of its own (wine32, i386) that
        # not every machine can install; without it the DLL is built and its
        # exports checked, and the tests that need to run it are skipped.
        runner=$(command -v wine || true)
        [ -x /usr/lib/wine/wine ] && runner=/usr/lib/wine/wine
      fi
      cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mingw-w64-$arch.cmake \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTL_INSTALL=OFF -DTL_NATIVE_TOOL="$PWD/build/cli/tolimage" \
        ${runner:+-DCMAKE_CROSSCOMPILING_EMULATOR=$runner} >/dev/null
      cmake --build "$dir" -j"$(nproc)"
      if [ -n "$runner" ] && "$runner" "$dir/tolimage.exe" --version >/dev/null 2>&1; then
        "$wineserver" -p 60 >/dev/null 2>&1 || true
        ctest --test-dir "$dir" --output-on-failure -j"$(nproc)"
      else
        echo "SKIPPED: the $bits-bit tests under Wine: no Wine here runs a $bits-bit program" \
             "(for 32-bit, Debian's wine32 package); only the DLL's exports and imports were checked."
        ctest --test-dir "$dir" --output-on-failure -R '^exports\.'
      fi
    done
    ;;
  *)
    echo "usage: scripts/test.sh [--sanitize|--tsan|--fuzz|--windows]" >&2
    exit 2
    ;;
esac
