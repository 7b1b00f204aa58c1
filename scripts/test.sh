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
    # The zip of one architecture, unpacked into a scratch folder and used
    # from there only: every file a host needs is in it, the DLL has no
    # debug sections and imports only system DLLs, the README's host links
    # against libtolimage.dll.a with mingw-w64, a host of the Microsoft ABI
    # (clang-cl, lld-link, no C run-time) against tolimage.lib, and both, run
    # where Wine runs the architecture, print the sample's size.
    package_test() {  # ZIP ARCH RUNS RUNNER
      local zip=$1 arch=$2 runs=$3 runner=$4 scratch target machine
      scratch=$(mktemp -d)
      (cd "$scratch" && cmake -E tar xf "$zip")
      for f in bin/tolimage.dll bin/tolimage.exe lib/tolimage.lib lib/libtolimage.dll.a \
               lib/cmake/TolImage/TolImageConfig.cmake include/tolimage.h README.txt tolimage.txt; do
        [ -s "$scratch/$f" ] || { echo "FAIL: $(basename "$zip") lacks $f" >&2; return 1; }
      done
      [ ! -e "$scratch/include/tolimage_posix.h" ] || { echo "FAIL: a POSIX-only header in the zip" >&2; return 1; }
      if "$arch-w64-mingw32-objdump" -h "$scratch/bin/tolimage.dll" | grep -q '\.debug'; then
        echo "FAIL: the zip's DLL has debug sections" >&2; return 1
      fi
      bash tests/check_exports.sh "$scratch/bin/tolimage.dll" tests/exports.txt
      sed -n '/^<!-- windows-host -->$/,/^```$/p' README.md | sed '1,2d;$d' > "$scratch/host.c"
      "$arch-w64-mingw32-gcc" -O2 -Wall -Wextra -Werror "$scratch/host.c" -I"$scratch/include" \
        "$scratch/lib/libtolimage.dll.a" -o "$scratch/bin/host_gnu.exe"
      target=x86_64-pc-windows-msvc machine=i386:x86-64
      [ "$arch" = i686 ] && target=i686-pc-windows-msvc machine=i386
      # The system calls it makes, decorated as 32-bit __stdcall names are.
      printf 'LIBRARY kernel32.dll\nEXPORTS\n%s\n' "GlobalLock@4 GlobalUnlock@4 GlobalFree@4 GetStdHandle@4 WriteFile@20 ExitProcess@4" |
        tr ' ' '\n' > "$scratch/kernel32.def"
      [ "$arch" = i686 ] || sed -i 's/@[0-9]*$//' "$scratch/kernel32.def"
      llvm-dlltool -m "$machine" -d "$scratch/kernel32.def" -l "$scratch/kernel32.lib" -k
      cat > "$scratch/host_msvc.c" <<'C'
/* A host of the Microsoft ABI with no C run-time: it declares what it calls. */
typedef void *HANDLE;
__declspec(dllimport) HANDLE __stdcall TL_IMAGE_E(char *name, int number);
__declspec(dllimport) void *__stdcall GlobalLock(HANDLE block);
__declspec(dllimport) int __stdcall GlobalUnlock(HANDLE block);
__declspec(dllimport) HANDLE __stdcall GlobalFree(HANDLE block);
__declspec(dllimport) HANDLE __stdcall GetStdHandle(unsigned long which);
__declspec(dllimport) int __stdcall WriteFile(HANDLE file, const void *bytes, unsigned long count,
                                              unsigned long *written, void *overlapped);
__declspec(dllimport) void __stdcall ExitProcess(unsigned int code);

static char *Decimal(char *at, long value) {  /* writes value, returns the end */
    char digits[12];
    int n = 0;
    do digits[n++] = (char)('0' + value % 10); while ((value /= 10) > 0);
    while (n > 0) *at++ = digits[--n];
    return at;
}

void __stdcall start(void) {
    static char name[260] = "sample.bmp";  /* static: no run-time copy of the text */
    char line[32], *end;
    unsigned long written;
    HANDLE block = TL_IMAGE_E(name, 0);
    const unsigned char *dib;
    if (!block) ExitProcess(1);
    dib = (const unsigned char *)GlobalLock(block);
    end = Decimal(line, *(const long *)(dib + 4));
    *end++ = ' ', *end++ = 'x', *end++ = ' ';
    end = Decimal(end, *(const long *)(dib + 8));
    *end++ = '\n';
    GlobalUnlock(block);
    GlobalFree(block);
    WriteFile(GetStdHandle((unsigned long)-11), line, (unsigned long)(end - line), &written, 0);
    ExitProcess(0);
}
C
      clang --driver-mode=cl --target="$target" /nologo /c /O2 /GS- -fno-builtin /Fo"$scratch/host_msvc.obj" "$scratch/host_msvc.c"
      lld-link /nologo /entry:start /subsystem:console /nodefaultlib "$scratch/host_msvc.obj" \
        "$scratch/lib/tolimage.lib" "$scratch/kernel32.lib" /out:"$scratch/bin/host_msvc.exe"
      if [ "$runs" = 1 ]; then
        cp samples/sample.bmp "$scratch/bin/"
        for host in host_gnu.exe host_msvc.exe; do
          got=$(cd "$scratch/bin" && "$runner" ./$host sample.bmp 2>/dev/null | tr -d '\r')
          [ "$got" = "480 x 200" ] || { echo "FAIL: $host from $(basename "$zip") printed '$got'" >&2; return 1; }
        done
      else
        echo "SKIPPED: the hosts linked against $(basename "$zip") were built, not run (no Wine for them here)"
      fi
      echo "package $(basename "$zip"): files, DLL and both hosts checked"
      rm -rf "$scratch"
    }
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
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTL_INSTALL=ON -DTL_NATIVE_TOOL="$PWD/build/cli/tolimage" \
        ${runner:+-DCMAKE_CROSSCOMPILING_EMULATOR=$runner} >/dev/null
      cmake --build "$dir" -j"$(nproc)"
      runs=0
      if [ -n "$runner" ] && "$runner" "$dir/tolimage.exe" --version >/dev/null 2>&1; then
        runs=1
        "$wineserver" -p 60 >/dev/null 2>&1 || true
        ctest --test-dir "$dir" --output-on-failure -j"$(nproc)"
      else
        echo "SKIPPED: the $bits-bit tests under Wine: no Wine here runs a $bits-bit program" \
             "(for 32-bit, Debian's wine32 package); only the DLL's exports and imports were checked."
        ctest --test-dir "$dir" --output-on-failure -R '^exports\.'
      fi
      (cd "$dir" && rm -f tolimage-*-win$bits.zip && cpack -G ZIP >/dev/null)
      package_test "$PWD/$dir"/tolimage-*-win$bits.zip "$arch" "$runs" "$runner"
    done
    ;;
  *)
    echo "usage: scripts/test.sh [--sanitize|--tsan|--fuzz|--windows]" >&2
    exit 2
    ;;
esac
