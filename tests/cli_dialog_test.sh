#!/usr/bin/env bash
# The tool on a file that does not exist: without a terminal the dialog
# cancels at once (status 1, nothing written); on a terminal it asks for a
# file and loads the one typed.
set -u
tool=$1 samples=$2
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
export XDG_CONFIG_HOME="$out/config"
fail=0

# No terminal: a new session without a controlling terminal, stdin from /dev/null.
start=$(date +%s)
timeout 20 setsid "$tool" info "$out/missing.tif" </dev/null >"$out/stdout" 2>"$out/stderr"
status=$?
elapsed=$(( $(date +%s) - start ))
[ "$status" = 1 ] || { echo "FAIL: no terminal gave status $status, expected 1"; cat "$out/stdout" "$out/stderr"; fail=1; }
[ "$elapsed" -le 5 ] || { echo "FAIL: no terminal took ${elapsed}s"; fail=1; }
[ ! -e "$XDG_CONFIG_HOME" ] || { echo "FAIL: a profile directory was made"; fail=1; }

# A terminal (a pseudo terminal from script(1)): the path typed is loaded.
if command -v script >/dev/null; then
    printf '%s\n' "$samples/sample.bmp" |
        timeout 20 script -qec "'$tool' info '$out/missing.tif'" /dev/null >"$out/screen" 2>&1
    status=$?
    [ "$status" = 0 ] || { echo "FAIL: terminal gave status $status, expected 0"; fail=1; }
    grep -q "Open Image File" "$out/screen" || { echo "FAIL: no dialog title shown"; fail=1; }
    grep -q "480 x 200, 1 bpp" "$out/screen" || { echo "FAIL: typed file not loaded"; fail=1; }
    [ "$fail" = 0 ] || cat -v "$out/screen"
else
    echo "script(1) missing: terminal case skipped"
fi
exit $fail
