#!/usr/bin/env bash
# Compares the dynamic symbols the library defines with the list of exports.
set -euo pipefail
lib=$1 expected=$2
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v '^_\(init\|fini\|edata\|end\|_bss_start\)$' | grep -v '^_' | sort)
if ! diff <(sort "$expected") <(echo "$actual"); then
  echo "exported symbols differ from $expected" >&2
  exit 1
fi
