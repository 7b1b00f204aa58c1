#!/usr/bin/env bash
# Builds the tool and shows what the library makes of the bundled samples.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target tolimage_cli >/dev/null
tool=build/cli/tolimage
shopt -s nullglob
samples=(samples/*.bmp samples/*.pcx samples/*.tif samples/*.ras)
"$tool" info "${samples[@]}"
for f in "${samples[@]}"; do
  echo "== $f"
  "$tool" show "$f"
done
