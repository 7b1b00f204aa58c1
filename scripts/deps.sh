#!/usr/bin/env bash
# Installs what the build needs, from Debian's packages, when it is missing.
#   deps.sh            compiler, CMake, GoogleTest, libpng, and NumPy, Pillow and
#                      pytest for the Python package
#   deps.sh fuzz       and clang with its libFuzzer runtime, and libtiff (the differential target's peer)
#   deps.sh bench      and Google Benchmark with libtiff (the peer measured)
#   deps.sh package    and dpkg-dev, for cpack's Debian package
#   deps.sh windows    and mingw-w64, wine64, GoogleTest's sources, and LLVM's dlltool, clang-cl
#                      and lld-link for the Microsoft import library and its test
set -euo pipefail
packages=(cmake make g++ libgtest-dev binutils pkg-config libpng-dev python3-numpy python3-pil python3-pytest python3-setuptools)
recommends=""  # Wine recommends a desktop's worth of packages it does not need here
for extra in "$@"; do
  case "$extra" in
    fuzz) packages+=(clang libclang-rt-14-dev libtiff-dev pkg-config) ;;
    bench) packages+=(libbenchmark-dev libtiff-dev) ;;
    package) packages+=(dpkg-dev) ;;
    windows) packages+=(mingw-w64 wine64 googletest llvm clang lld man-db bsdextrautils); recommends=--no-install-recommends ;;
  esac
done
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" = 0 ] || sudo_cmd=sudo
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq $recommends "${missing[@]}" >/dev/null
fi
