#!/usr/bin/env bash
# Whole loads through each build of the library on the same pages, in one
# run: the Linux library, and the 64- and 32-bit DLLs under Wine where Wine
# runs them.  The builds take turns, round by round; the best round of each
# is kept.  Prints a Markdown table, milliseconds a load.
#   bench/load_loop.sh [ROUNDS]      default 5 rounds of at least 150 ms a page
set -euo pipefail
cd "$(dirname "$0")/.."
rounds=${1:-5}
bash scripts/deps.sh bench windows >/dev/null
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DTL_BENCH=ON -DTL_TESTS=OFF >/dev/null
cmake --build build-bench -j"$(nproc)" --target load_bench load_loop >/dev/null
for bits in 64 32; do
  arch=x86_64; [ "$bits" = 32 ] && arch=i686
  cmake -S . -B "build-win$bits" -DCMAKE_TOOLCHAIN_FILE="cmake/toolchains/mingw-w64-$arch.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTL_BENCH=ON >/dev/null
  cmake --build "build-win$bits" -j"$(nproc)" --target load_loop >/dev/null
done
pages=$(mktemp -d)
trap 'rm -rf "$pages"' EXIT
# The benchmark's pages, as libtiff writes them; kept, not timed.
TL_BENCH_KEEP="$pages" build-bench/bench/load_bench 1 1 >/dev/null
files=$(cd "$pages" && ls *.tif | sort)
export WINEDEBUG=-all WINEPREFIX=$PWD/build-win64/wineprefix
unset DISPLAY WAYLAND_DISPLAY
wine32=$(command -v wine || true)
[ -x /usr/lib/wine/wine ] && wine32=/usr/lib/wine/wine
runners=("linux" "win64")
if [ -n "$wine32" ] && "$wine32" build-win32/load_loop.exe -r 1 -t 1 "$pages/$(echo "$files" | head -1)" >/dev/null 2>&1; then
  runners+=("win32")
fi
run() {  # RUNNER: one round over every page, "page ms" lines
  case $1 in
    linux) (cd "$pages" && "$OLDPWD/build-bench/bench/load_loop" -r 1 $files) ;;
    win64) (cd "$pages" && /usr/lib/wine/wine64 "$OLDPWD/build-win64/load_loop.exe" -r 1 $files) ;;
    win32) (cd "$pages" && "$wine32" "$OLDPWD/build-win32/load_loop.exe" -r 1 $files) ;;
  esac | tr -d '\r'
}
best=$(mktemp)
for ((r = 0; r < rounds; r++)); do
  for runner in "${runners[@]}"; do run "$runner" | sed "s/^/$runner /"; done
done | awk '{k = $1 " " $2; if (!(k in b) || $3 < b[k]) b[k] = $3} END {for (k in b) print k, b[k]}' >"$best"
printf '| page | Linux | 64-bit DLL, Wine | 32-bit DLL, Wine | 32 / 64 |\n|---|---|---|---|---|\n'
for f in $files; do
  l=$(awk -v f="$f" '$1 == "linux" && $2 == f {print $3}' "$best")
  w64=$(awk -v f="$f" '$1 == "win64" && $2 == f {print $3}' "$best")
  w32=$(awk -v f="$f" '$1 == "win32" && $2 == f {print $3}' "$best")
  ratio=""; [ -n "$w32" ] && ratio=$(awk -v a="$w32" -v b="$w64" 'BEGIN {printf "%.2f", a / b}')
  printf '| %s | %s | %s | %s | %s |\n' "${f%.tif}" "$l" "$w64" "${w32:-not run}" "$ratio"
done
rm -f "$best"
[ "${#runners[@]}" = 3 ] || echo "(no Wine here runs 32-bit programs: Debian's wine32 package is missing)"
