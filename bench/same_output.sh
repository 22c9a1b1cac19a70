#!/bin/sh
# Differential run: two builds of kln2txt must give the same bytes and the
# same exit status for every document under every option set.
#   bench/same_output.sh OLD_KLN2TXT NEW_KLN2TXT DOC_OR_DIR...
# Files over 1 MiB (the benchmarks' big documents, kept with
# KLN_BENCH_DOCS=DIR) run under the first QUICK sets only.
# Prints the number of runs compared and every one that differs; exits 1
# when one differs.
set -u
[ $# -ge 3 ] || { echo "usage: $0 OLD_KLN2TXT NEW_KLN2TXT DOC_OR_DIR..." >&2; exit 2; }
OLD=$1 NEW=$2
shift 2
QUICK=${QUICK:-6}
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

# One option set a line.
cat >"$WORK/sets" <<'EOF'

-e UTF-16 --ole extract
-e ISO-8859-1 --line-ends crlf
-e WINDOWS-31J --no-quote --no-fill --line-ends space
--latin1 --line-ends cr --tab
--format jsonl
--ole refuse
--ole-continue --max-bytes 40
--ole-strict --max-bytes 1000 -e UTF-16
--separator ; --no-quote
--bom --line-ends keep
-e UTF-32BE --line-ends lf
-e EUC-JP
--format markdown --header-row
--format html
--json
--properties
--properties -e UTF-16
EOF

runs=0 diffs=0
for arg in "$@"; do
  if [ -d "$arg" ]; then find "$arg" -type f; else echo "$arg"; fi
done | sort >"$WORK/docs"
while read -r doc; do
  [ -f "$doc" ] || { echo "no such document: $doc" >&2; diffs=$((diffs + 1)); continue; }
  size=$(wc -c <"$doc")
  n=0
  while IFS= read -r set; do
    n=$((n + 1))
    [ "$size" -gt 1048576 ] && [ "$n" -gt "$QUICK" ] && break
    # shellcheck disable=SC2086  # a set is several words
    "$OLD" $set "$doc" >"$WORK/old" 2>/dev/null </dev/null; old=$?
    # shellcheck disable=SC2086
    "$NEW" $set "$doc" >"$WORK/new" 2>/dev/null </dev/null; new=$?
    runs=$((runs + 1))
    if [ "$old" -ne "$new" ] || ! cmp -s "$WORK/old" "$WORK/new"; then
      diffs=$((diffs + 1))
      echo "differs: $doc [$set] (exit $old / $new)"
    fi
  done <"$WORK/sets"
done <"$WORK/docs"
echo "$runs runs compared, $diffs differ"
[ "$diffs" -eq 0 ]
