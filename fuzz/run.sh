#!/bin/sh
# Builds the libFuzzer harnesses with AddressSanitizer and
# UndefinedBehaviorSanitizer and runs each for SECONDS (default 60) on the
# seed corpus, with the format's dictionary. Findings land in
# build-fuzz/artifacts; the growing corpus in build-fuzz/corpus-<harness>.
set -e
SECONDS_EACH=${1:-60}
cd "$(dirname "$0")/.."
cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKLN_BUILD_FUZZERS=ON \
  -DKLN_SANITIZE="address;undefined" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
cmake --build build-fuzz -j2
build-fuzz/fuzz/make_seeds build-fuzz/seeds
mkdir -p build-fuzz/artifacts
for h in text property; do
  mkdir -p "build-fuzz/corpus-$h"
  TMPDIR=$(mktemp -d) build-fuzz/fuzz/fuzz_$h -max_total_time="$SECONDS_EACH" -timeout=1 -rss_limit_mb=2048 \
    -dict=fuzz/kln.dict -artifact_prefix=build-fuzz/artifacts/ \
    "build-fuzz/corpus-$h" build-fuzz/seeds fuzz/regressions
done
