#!/usr/bin/env bash
# The tool on a missing file: without a terminal the dialog cancels at once (status 1, nothing written); on a
# terminal it asks for a file and loads the one typed.
set -u
tool=$1 samples=$2
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
export XDG_CONFIG_HOME="$out/config"
fail=0
bad() { echo "FAIL: $*"; fail=1; }

start=$(date +%s)  # a new session without a controlling terminal, stdin from /dev/null
timeout 20 setsid "$tool" info "$out/missing.tif" </dev/null >"$out/stdout" 2>"$out/stderr"
status=$?
[ "$status" = 1 ] || { bad "no terminal gave status $status, expected 1"; cat "$out/stdout" "$out/stderr"; }
[ $(( $(date +%s) - start )) -le 5 ] || bad "no terminal took too long"
[ ! -e "$XDG_CONFIG_HOME" ] || bad "a profile directory was made"

if command -v script >/dev/null; then  # a pseudo terminal from script(1)
    printf '%s\n' "$samples/sample.bmp" |
        timeout 20 script -qec "'$tool' info '$out/missing.tif'" /dev/null >"$out/screen" 2>&1
    status=$?
    [ "$status" = 0 ] || bad "terminal gave status $status, expected 0"
    grep -q "Open Image File" "$out/screen" || bad "no dialog title shown"
    grep -q "480 x 200, 1 bpp" "$out/screen" || bad "typed file not loaded"
    [ "$fail" = 0 ] || cat -v "$out/screen"
else
    echo "script(1) missing: terminal case skipped"
fi
exit $fail
