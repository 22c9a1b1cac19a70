#!/bin/sh
# Speed and memory of a Release build, each figure beside its yardstick
# from the same run (the machine may be shared: compare ratios, not rates):
#   word processing  MB/s of the filter against iconv (Windows-31J to UTF-8,
#                    the same text bytes in 32,000-byte pieces)
#   spreadsheet      M cells/s on the 256 x 16,384 sheet
#   database         rows/s on 30,000 x 12 with a shuffled record list
#   start-up         kln2txt letter.kln against cat letter.kln (hyperfine)
#   peak memory      of kln2txt on each big document (/usr/bin/time -v)
# Usage: bench/compare.sh [BUILD_DIR]   (build-bench; REPS=3 repetitions of each)
set -e
cd "$(dirname "$0")/.."
BUILD=${1:-build-bench}
JOBS=${JOBS:-2}
REPS=${REPS:-3}

missing=""
command -v hyperfine >/dev/null 2>&1 || missing="$missing hyperfine"
[ -x /usr/bin/time ] || missing="$missing time"
if [ -n "$missing" ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq $missing >/dev/null
fi

cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DKLN_BUILD_BENCH=ON -DKLN_BUILD_TESTS=OFF >/dev/null
if ! cmake --build "$BUILD" -j "$JOBS" >"$BUILD/compare-build.log" 2>&1; then
  tail -n 40 "$BUILD/compare-build.log"
  exit 1
fi

WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
# KLN_BENCH_DOCS=DIR keeps the generated documents in DIR.
export KLN_BENCH_DOCS="${KLN_BENCH_DOCS:-$WORK}"
for b in wp ss db; do
  "$BUILD/bench/${b}_bench" --benchmark_repetitions="$REPS" --benchmark_filter='ToText|WordProcessing|Iconv' \
    --benchmark_format=json >"$WORK/$b.json" 2>/dev/null
done
hyperfine -N -w 20 -r 300 --export-json "$WORK/start.json" \
  "$BUILD/cli/kln2txt $BUILD/samples/letter.kln" "cat $BUILD/samples/letter.kln" >/dev/null
for d in big mixed numeric db30000; do
  /usr/bin/time -v "$BUILD/cli/kln2txt" "$KLN_BENCH_DOCS/$d.kln" >/dev/null 2>"$WORK/$d.time"
done

python3 - "$WORK" "$KLN_BENCH_DOCS" <<'PY'
import json, os, re, sys
work, docs = sys.argv[1], sys.argv[2]

def best(bench, name, field):
    runs = json.load(open(f"{work}/{bench}.json"))["benchmarks"]
    return max(r[field] for r in runs if r.get("run_name", "").split("/")[0] == name and r.get("run_type") == "iteration")

wp = best("wp", "BM_FilterWordProcessing", "bytes_per_second") / 1e6
iconv = best("wp", "BM_IconvSameText", "bytes_per_second") / 1e6
cells = best("ss", "BM_SpreadsheetToText", "cells_per_second") / 1e6
rows = best("db", "BM_DatabaseToText", "rows_per_second")
start = {r["command"].split()[0].rsplit("/", 1)[-1]: r for r in json.load(open(f"{work}/start.json"))["results"]}
k, c = start["kln2txt"]["min"] * 1e3, start["cat"]["min"] * 1e3
km, cm = start["kln2txt"]["median"] * 1e3, start["cat"]["median"] * 1e3
print(f"word processing  filter {wp:8.1f} MB/s   iconv {iconv:8.1f} MB/s   ratio {wp / iconv:.2f} (goal >= 1.0)")
print(f"spreadsheet      {cells:8.2f} M cells/s (goal >= 3)")
print(f"database         {rows:10.0f} rows/s (goal >= 400000)")
print(f"start-up         kln2txt {km:.2f} ms   cat {cm:.2f} ms (medians; minima {k:.2f} / {c:.2f})"
      f"   ratio {km / cm:.2f} (goal <= 2)")
numeric_cells = 256 * 16384
for d in ["big", "mixed", "numeric", "db30000"]:
    text = open(f"{work}/{d}.time").read()
    rss = int(re.search(r"Maximum resident set size \(kbytes\): (\d+)", text).group(1)) * 1024
    size = os.path.getsize(f"{docs}/{d}.kln")
    line = f"peak memory      {d + '.kln':12} {size / 2**20:6.1f} MiB document, {rss / 2**20:6.1f} MiB resident"
    if d == "numeric":
        line += f" ({(rss - size) / numeric_cells:.1f} bytes per cell beyond the document; goal <= 32)"
    print(line)
PY
