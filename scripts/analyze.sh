#!/usr/bin/env bash
# Static analysis of the product code: clang-tidy (checks in .clang-tidy) and
# cppcheck (warning, performance, portability) over every source file of the
# plain build's compile_commands.json under filter/ common/ printer/ image/
# enhance/ tools/ app/. Fails on any finding that scripts/analysis-suppressions.txt
# does not list, and on any listed suppression that no longer matches.
set -euo pipefail
cd "$(dirname "$0")/.."

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

if ! dir=$(bash scripts/build.sh plain 2> "$out/build.log" | tail -n 1); then
  cat "$out/build.log" >&2
  exit 1
fi
db="$dir/compile_commands.json"
test -f "$db"

# The product sources, in the order the build lists them.
grep -o '"file": *"[^"]*"' "$db" | sed 's/^"file": *"//; s/"$//' |
  grep -E "^$PWD/(filter|common|printer|image|enhance|tools|app)/" > "$out/files"
test -s "$out/files"

echo "== cppcheck"
cppcheck --project="$db" -i tests -i bench \
  --enable=warning,performance,portability --std=c++17 --library=posix --quiet \
  -j "$(nproc)" --template='{file}:{line}:{column}: {severity}: {message} [{id}]' \
  2> "$out/cppcheck.txt" || { cat "$out/cppcheck.txt" >&2; echo "cppcheck failed" >&2; exit 1; }
sed 's/^/cppcheck /' "$out/cppcheck.txt" > "$out/findings"

echo "== clang-tidy"
# One process per file, each writing its own report; headers are reported by
# every file that includes them, so duplicates are dropped below.
status=0
xargs -P "$(nproc)" -I{} sh -c \
  'clang-tidy-14 -p "$1" --quiet --use-color=false "$2" > "$3/tidy.$(basename "$2").txt" 2>&1' \
  sh "$dir" {} "$out" < "$out/files" || status=$?
if [ "$status" -ne 0 ]; then
  # clang-tidy fails only on errors (a file that does not compile for clang).
  cat "$out"/tidy.*.txt >&2
  echo "clang-tidy failed" >&2
  exit 1
fi
{ grep -hE '^[^ ]+:[0-9]+:[0-9]+: (warning|error): ' "$out"/tidy.*.txt || true; } |
  sed 's/^/clang-tidy /' >> "$out/findings"

# A finding is "<tool> <file>:<line>:<col>: <severity>: <message> [<check>[,<alias>]]";
# a suppression is "<tool> <check> <file> `<text on the flagged line>` <reason>".
sort -u "$out/findings" | awk -v root="$PWD/" -v list=scripts/analysis-suppressions.txt '
  function trim(s) { gsub(/^[ \t]+|[ \t]+$/, "", s); return s }
  BEGIN {
    n = 0
    while ((getline line < list) > 0) {
      ++lineNo
      if (line ~ /^[ \t]*(#|$)/)
        continue
      if (split(line, part, "`") != 3 || split(trim(part[1]), head, /[ \t]+/) != 3 ||
          trim(part[2]) == "" || trim(part[3]) == "") {
        printf "%s:%d: malformed suppression (want: tool check file `text` reason)\n", list, lineNo
        bad = 1
        continue
      }
      ++n
      sTool[n] = head[1]; sCheck[n] = head[2]; sFile[n] = head[3]; sText[n] = part[2]
      sWhere[n] = list ":" lineNo
    }
  }
  function sourceLine(file, want,   text, k) {
    if (!(file in seen)) {
      seen[file] = 1
      k = 0
      while ((getline text < (root file)) > 0)
        src[file, ++k] = text
      close(root file)
    }
    return src[file, want]
  }
  {
    tool = $1
    rest = substr($0, length(tool) + 2)
    if (index(rest, root) == 1)
      rest = substr(rest, length(root) + 1)
    split(rest, loc, ":")
    file = loc[1]; lineNum = loc[2]
    checks = rest; sub(/.*\[/, "", checks); sub(/\]$/, "", checks)
    split(checks, names, ",")
    text = sourceLine(file, lineNum)
    hit = 0
    for (i = 1; i <= n && !hit; ++i) {
      if (sTool[i] != tool || sFile[i] != file || index(text, sText[i]) == 0)
        continue
      for (j in names)
        if (names[j] == sCheck[i])
          hit = i
    }
    if (hit)
      used[hit] = 1
    else {
      print tool ": " rest
      bad = 1
    }
  }
  END {
    for (i = 1; i <= n; ++i)
      if (!(i in used)) {
        printf "%s: suppression matches no finding any more; remove it\n", sWhere[i]
        bad = 1
      }
    exit bad
  }' || { echo "static analysis: fix the findings above or list them, with a reason, in scripts/analysis-suppressions.txt" >&2; exit 1; }
echo "static analysis: no unexplained findings"
