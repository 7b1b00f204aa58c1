#!/usr/bin/env bash
# Compares the symbols the library exports with the list of exports.
#   check_exports.sh LIBRARY exports.txt
# For a Windows DLL: the exports are the list without the Win32 calls that
# only the POSIX library supplies, undecorated, and the DLL imports nothing
# but system DLLs.
set -euo pipefail
lib=$1 expected=$2
posix_only='^(GetInputState|GlobalAlloc|GlobalFree|GlobalLock|GlobalUnlock|PeekMessageA|PostMessageA)$'
case "$lib" in
  *.dll)
    dump=$(objdump -p "$lib")
    actual=$(echo "$dump" | sed -n '/^\[Ordinal\/Name Pointer\] Table/,/^$/p' | grep -E '^\s+\[' | awk '{print $NF}' | sort)
    want=$(grep -Ev "$posix_only" "$expected" | sort)
    if ! diff <(echo "$want") <(echo "$actual"); then
      echo "exported names differ from $expected" >&2
      exit 1
    fi
    imports=$(echo "$dump" | sed -n 's/^\s*DLL Name: //p' | tr 'a-z' 'A-Z' | sort -u)
    for dll in $imports; do
      case "$dll" in
        KERNEL32.DLL|USER32.DLL|COMDLG32.DLL|MSVCRT.DLL) ;;
        *) echo "imports a DLL that is not the system's: $dll" >&2; exit 1 ;;
      esac
    done
    grep -Eq "^Magic\s+(010b|020b)" <<<"$dump" || { echo "not a PE32/PE32+ image" >&2; exit 1; }
    ;;
  *)
    actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v '^_\(init\|fini\|edata\|end\|_bss_start\)$' | grep -v '^_' | sort)
    if ! diff <(sort "$expected") <(echo "$actual"); then
      echo "exported symbols differ from $expected" >&2
      exit 1
    fi
    ;;
esac
