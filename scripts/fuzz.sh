#!/usr/bin/env bash
# Runs every fuzz target in turn for SECONDS (default 60), each on its kept
# corpus (fuzz/corpus/<target>/), its seeds and its dictionary; merges what
# it found into the corpus; prints executions, coverage and findings per
# target.  Inputs that crash or hang are written to fuzz/crashers/ and make
# the run red.
#   scripts/fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
bash scripts/test.sh --fuzz >/dev/null
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(bmp pcx ras tiff record bitmap image tiff_libtiff)
seeds_of() {  # the seed folders of a target
  case "$1" in
    bmp) echo fuzz/seeds/bmp ;;
    pcx) echo fuzz/seeds/pcx ;;
    ras) echo fuzz/seeds/ras ;;
    tiff|tiff_libtiff) echo fuzz/seeds/tiff fuzz/seeds/fax ;;
    bitmap) echo fuzz/seeds/bitmap ;;
    *) echo fuzz/seeds/bmp fuzz/seeds/pcx fuzz/seeds/ras fuzz/seeds/tiff fuzz/seeds/fax ;;
  esac
}
dict_of() {
  case "$1" in
    bmp|bitmap) echo fuzz/dict/bmp.dict ;;
    pcx) echo fuzz/dict/pcx.dict ;;
    ras) echo fuzz/dict/ras.dict ;;
    tiff|tiff_libtiff|record|image) echo fuzz/dict/tiff.dict ;;
  esac
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0
printf '%-14s %10s %8s %8s %9s\n' target execs cov ft findings
for t in "${targets[@]}"; do
  corpus=fuzz/corpus/$t
  mkdir -p "$corpus" "$work/$t"
  log=$work/$t.log
  # shellcheck disable=SC2046
  build-fuzz/fuzz/fuzz_$t -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 -print_final_stats=1 \
    -artifact_prefix="$work/$t/" -dict="$(dict_of "$t")" "$work/$t" "$corpus" $(seeds_of "$t") >"$log" 2>&1 || true
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 | cut -d' ' -f2)
  ft=$(grep -o 'ft: [0-9]*' "$log" | tail -n 1 | cut -d' ' -f2)
  findings=$(find "$work/$t" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'timeout-*' -o -name 'oom-*' -o -name 'leak-*' \) | wc -l)
  if [ "$findings" -gt 0 ]; then
    status=1
    mkdir -p fuzz/crashers
    cp "$work/$t"/crash-* "$work/$t"/timeout-* "$work/$t"/oom-* "$work/$t"/leak-* fuzz/crashers/ 2>/dev/null || true
  fi
  # Keep only what adds coverage: the corpus, merged with the new inputs.
  find "$work/$t" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'timeout-*' -o -name 'oom-*' -o -name 'leak-*' \) -delete
  mkdir -p "$work/$t.merged"
  build-fuzz/fuzz/fuzz_$t -merge=1 -timeout=30 "$work/$t.merged" "$corpus" "$work/$t" >/dev/null 2>&1 || true
  if [ -n "$(ls -A "$work/$t.merged")" ]; then
    rm -rf "$corpus"
    mv "$work/$t.merged" "$corpus"
  fi
  printf '%-14s %10s %8s %8s %9s\n' "$t" "${execs:-0}" "${cov:-?}" "${ft:-?}" "$findings"
done
echo "the corpora changed: write their digests anew, so that the replay pins the new inputs too:"
echo "  TL_WRITE_DIGESTS=1 build/tests/tolimage_tests --gtest_filter='Replay.*'"
exit $status
