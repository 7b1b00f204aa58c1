#!/usr/bin/env bash
# Builds the library, the tool and the tests, and runs every test.
#   scripts/test.sh              plain build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UBSan build in build-asan/
#   scripts/test.sh --fuzz       also builds the libFuzzer targets (clang) in build-fuzz/
#   scripts/test.sh --tsan       ThreadSanitizer build in build-tsan/: the threads and
#                                packaging tests, and the rest of the suite
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
  *)
    echo "usage: scripts/test.sh [--sanitize|--tsan|--fuzz]" >&2
    exit 2
    ;;
esac
