#!/usr/bin/env bash
# Puts deliberate faults into the library and the tool, one at a time, and
# counts how many the test suite catches.
#
#   scripts/mutate.sh [COUNT [SEED [SUITE]]]
#
# COUNT faults (default 100) are drawn with SEED (default 1) from every
# place in the sources of the library and the tool (include core services
# handover readers tiff fax platform/posix cli) where one of these fits:
#   cmp     a comparison flipped (< and >=, > and <=, == and !=)
#   bound   a bound off by one (< and <=, > and >=)
#   const   an integer constant changed (n becomes n + 1)
#   drop    a statement dropped (a call or an assignment)
#   logic   && and || swapped
#   result  a result inverted (return true / false, return 1 / 0)
# Each fault is put into a copy of the tree, which is rebuilt; a fault that
# does not compile is not counted.  The suite (ctest, every test) catches a
# fault when any test fails or times out.  The draw depends only on the
# seed and the library's sources, so that two suites can be compared on the
# same faults: SUITE, a git revision, takes tests/ and fuzz/ from that
# revision instead of the working tree, the library staying as it is.
#
# Prints one line per fault and, at the end, the faults caught out of those
# that compiled and the ones missed.  Needs what scripts/test.sh needs.
set -euo pipefail
cd "$(dirname "$0")/.."
count=${1:-100}
seed=${2:-1}
suite=${3:-}
bash scripts/deps.sh >/dev/null

work=$(mktemp -d "${TMPDIR:-/tmp}/tolimage-mutate.XXXXXX")
trap 'rm -rf "$work"' EXIT
tree=$work/tree
mkdir -p "$tree"
# The tracked files as the working tree has them.
git ls-files -z | tar --null -T - -cf - | tar -xf - -C "$tree"
if [ -n "$suite" ]; then
  # The suite is the tests and what they replay (the fuzz harness, its
  # corpora and their digests).
  rm -rf "$tree/tests" "$tree/fuzz"
  git archive "$suite" tests fuzz | tar -xf - -C "$tree"
fi

cmake -S "$tree" -B "$work/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$work/build" -j"$(nproc)" >/dev/null
# With MUTATE_LOG set, the whole suite runs for each fault and the tests
# that failed are written there, a line a fault, to tell which tests catch
# what; otherwise the suite stops at its first failure.
run_suite() {
  if [ -n "${MUTATE_LOG:-}" ]; then
    ctest --test-dir "$work/build" -j"$(nproc)" --timeout 60 > "$work/ctest.out" 2>&1 && return 0
    failed=$(sed -n '/The following tests FAILED/,$p' "$work/ctest.out" | sed -n 's/^[[:space:]]*[0-9]* - \([^ ]*\).*/\1/p' | tr '\n' ' ')
    return 1
  fi
  ctest --test-dir "$work/build" -j"$(nproc)" --timeout 120 --stop-on-failure >/dev/null 2>&1
}
if ! run_suite; then
  echo "mutate: the suite fails without any fault; nothing to measure" >&2
  exit 1
fi

/usr/bin/python3 - "$tree" "$count" "$seed" > "$work/faults" <<'PY'
# Lists the drawn faults, one a line: file, line number, kind, old text, new text.
import os, random, re, sys
tree, count, seed = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
folders = ["include", "core", "services", "handover", "readers", "tiff", "fax", "platform/posix", "cli"]
files = []
for folder in folders:
    top = os.path.join(tree, folder)
    if folder == "platform/posix":
        # the platform layer's own files in use on POSIX, and its shared ones
        names = [os.path.join("platform/posix", n) for n in os.listdir(top)]
        names += [os.path.join("platform", n) for n in os.listdir(os.path.join(tree, "platform"))]
    else:
        names = [os.path.join(folder, n) for n in os.listdir(top)]
    files += [n for n in names if re.search(r"\.(cpp|h|c)$", n) and os.path.isfile(os.path.join(tree, n))]
files = sorted(set(files))

swaps = {
    "cmp": [(" < ", " >= "), (" >= ", " < "), (" > ", " <= "), (" <= ", " > "), (" == ", " != "), (" != ", " == ")],
    "bound": [(" < ", " <= "), (" <= ", " < "), (" > ", " >= "), (" >= ", " > ")],
    "logic": [(" && ", " || "), (" || ", " && ")],
    "result": [("return true;", "return false;"), ("return false;", "return true;"),
               ("return 1;", "return 0;"), ("return 0;", "return 1;")],
}
statement = re.compile(r"^\s+(?!return\b|case\b|default\b|break\b|continue\b|goto\b|else\b|const\b|constexpr\b|static\b|auto\b|using\b|typedef\b)"
                       r"[A-Za-z_][\w.\->\[\]:*]*\s*(\(.*\)|[+\-*/|&^]?=[^=].*|\+\+|--)\s*;\s*(//.*)?$")
declaration = re.compile(r"^\s+[A-Za-z_][\w:<>,\s*&]*\s[*&]?[A-Za-z_]\w*\s*(=|\{|\[|;)")
constant = re.compile(r"(?<![\w.])(\d+)(?![\w.'])")
sites = []
for name in files:
    in_block = False
    for number, line in enumerate(open(os.path.join(tree, name), encoding="latin-1"), 1):
        text = line.rstrip("\n")
        stripped = text.strip()
        if in_block:
            if "*/" in stripped: in_block = False
            continue
        if stripped.startswith("/*") and "*/" not in stripped:
            in_block = True
            continue
        if not stripped or stripped.startswith(("//", "#", "*", "static_assert", "extern", "template")):
            continue
        code = text.split("//")[0]
        if '"' in code:  # texts of the library's output stay as they are
            code = re.sub(r'"([^"\\]|\\.)*"', lambda m: "\0" * len(m.group(0)), code)
        for kind, pairs in swaps.items():
            for old, new in pairs:
                at = code.find(old)
                while at >= 0:
                    sites.append((name, number, kind, at, old, new))
                    at = code.find(old, at + 1)
        for m in constant.finditer(code):
            sites.append((name, number, "const", m.start(), m.group(1), str(int(m.group(1)) + 1)))
        if statement.match(code) and not declaration.match(code):
            sites.append((name, number, "drop", 0, text, "/* dropped */"))
random.Random(seed).shuffle(sites)
for site in sites[:count]:
    print("\t".join(str(v) for v in site))
PY

apply_fault() {  # file line kind column old new: writes the faulty line into the tree
  /usr/bin/python3 - "$tree/$1" "$2" "$3" "$4" "$5" "$6" <<'PY'
import sys
path, number, kind, column, old, new = sys.argv[1], int(sys.argv[2]), sys.argv[3], int(sys.argv[4]), sys.argv[5], sys.argv[6]
lines = open(path, encoding="latin-1").read().split("\n")
line = lines[number - 1]
if kind == "drop":
    lines[number - 1] = new
else:
    assert line[column:column + len(old)] == old
    lines[number - 1] = line[:column] + new + line[column + len(old):]
open(path, "w", encoding="latin-1").write("\n".join(lines))
PY
}

caught=0 compiled=0 index=0 failed=""
missed=()
while IFS=$'\t' read -r file line kind column old new; do
  index=$((index + 1))
  cp "$tree/$file" "$work/original"
  apply_fault "$file" "$line" "$kind" "$column" "$old" "$new"
  what="$file:$line $kind '$(echo "$old" | sed 's/^ *//')' -> '$(echo "$new" | sed 's/^ *//')'"
  if ! cmake --build "$work/build" -j"$(nproc)" >/dev/null 2>&1; then
    echo "[$index] not compiled: $what"
  else
    compiled=$((compiled + 1))
    if run_suite; then
      echo "[$index] MISSED: $what"
      missed+=("$what")
    else
      caught=$((caught + 1))
      echo "[$index] caught: $what"
      [ -n "${MUTATE_LOG:-}" ] && printf '%s\t%s\n' "$what" "$failed" >> "$MUTATE_LOG"
    fi
  fi
  cp "$work/original" "$tree/$file"
  touch "$tree/$file"
done < "$work/faults"
# The last fault's objects are rebuilt from the restored sources.
cmake --build "$work/build" -j"$(nproc)" >/dev/null 2>&1 || true

echo
echo "seed $seed${suite:+, suite of $suite}: caught $caught of $compiled faults that compiled ($index drawn)"
for m in "${missed[@]+"${missed[@]}"}"; do echo "  missed: $m"; done
