#!/usr/bin/env bash
# The library as others build against it: installed into a scratch prefix,
# the README's host in C built once through CMake's find_package and once
# through pkg-config, and run on a sample; the SONAME, the visible exports
# and the installed tool checked.
#   package_test.sh BUILD SOURCE CC "SANITIZER FLAGS"
set -u
build=$1 source=$2 cc=$3 flags=${4:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail=0
check() { "$@" || { echo "FAIL: $*"; fail=1; }; }

cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; exit 1; }
libdir=$(dirname "$(find "$prefix" -name 'libtolimage.so' | head -n 1)")
version=$(sed -n 's/^#define TOLIMAGE_VERSION_STRING "\(.*\)"/\1/p' "$source/include/tolimage.h")
major=${version%%.*}
for f in include/tolimage.h include/tolimage_posix.h bin/tolimage share/man/man1/tolimage.1; do
    check test -f "$prefix/$f"
done
check test -f "$libdir/libtolimage.so.$version"
check test "$(readlink "$libdir/libtolimage.so.$major")" = "libtolimage.so.$version"
check test "$(readlink "$libdir/libtolimage.so")" = "libtolimage.so.$major"
soname=$(objdump -p "$libdir/libtolimage.so.$version" | awk '$1 == "SONAME" {print $2}')
check test "$soname" = "libtolimage.so.$major"
check "$source/tests/check_exports.sh" "$libdir/libtolimage.so.$version" "$source/tests/exports.txt"
check test "$("$prefix/bin/tolimage" --version | head -n 1 | cut -d' ' -f2)" = "$version"

# The host exactly as the README shows it.
sed -n '/^## A host in C/,/^```$/p' "$source/README.md" | sed '1,/^```c$/d;/^```$/d' >"$work/host.c"
check grep -q 'TL_IMAGE_E' "$work/host.c"
expect_width() {  # expect_width HOST: the host prints the sample's width
    local out
    out=$("$1" "$source/samples/sample.bmp" 2>&1)
    [ "$out" = "480 pixels wide" ] || { echo "FAIL: $1 printed: $out"; fail=1; }
}

mkdir -p "$work/cmake-host"
cat >"$work/cmake-host/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.16)
project(host C)
find_package(TolImage $major.${version#*.} REQUIRED)
add_executable(host $work/host.c)
target_link_libraries(host PRIVATE TolImage::tolimage)
CMAKE
if cmake -S "$work/cmake-host" -B "$work/cmake-host/build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
        -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >"$work/cmake.log" 2>&1 &&
    cmake --build "$work/cmake-host/build" >>"$work/cmake.log" 2>&1; then
    expect_width "$work/cmake-host/build/host"
else
    echo "FAIL: host through find_package"; cat "$work/cmake.log"; fail=1
fi
# A later major version is not this one.
sed -i "s/find_package(TolImage [0-9.]*/find_package(TolImage $((major + 1))/" "$work/cmake-host/CMakeLists.txt"
cmake -S "$work/cmake-host" -B "$work/cmake-host/build2" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null 2>&1 &&
    { echo "FAIL: find_package accepted version $((major + 1))"; fail=1; }

export PKG_CONFIG_PATH=$libdir/pkgconfig
check test "$(pkg-config --modversion tolimage)" = "$version"
# shellcheck disable=SC2046,SC2086
if "$cc" $flags "$work/host.c" -o "$work/host-pc" $(pkg-config --cflags --libs tolimage) -Wl,-rpath,"$libdir" \
        2>"$work/cc.log"; then
    expect_width "$work/host-pc"
else
    echo "FAIL: host through pkg-config"; cat "$work/cc.log"; fail=1
fi
exit $fail
