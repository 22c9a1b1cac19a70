#!/bin/sh
# Builds the project twice and runs every test in both builds:
#   build-check      g++, warnings are errors
#   build-sanitize   clang with AddressSanitizer and UndefinedBehaviorSanitizer
# then runs the corpus under memcheck (build-check) and the thread test
# under ThreadSanitizer (build-tsan, that test alone), and installs the
# Python package into a new virtual environment and runs its tests against
# the documents of build-check.
set -e
cd "$(dirname "$0")/.."
JOBS=${JOBS:-2}

cmake -S . -B build-check -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKLN_WERROR=ON \
  -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++
cmake --build build-check -j "$JOBS"
ctest --test-dir build-check --output-on-failure -j "$JOBS"

cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug -DKLN_WERROR=ON -DKLN_SANITIZE="address;undefined" \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
cmake --build build-sanitize -j "$JOBS"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-sanitize --output-on-failure -j "$JOBS"

# ---- Memcheck leg: the build-check binaries over the shared corpus ----
# The corpus host program (every document in stream mode, file mode and for
# its properties) and the replay of the fuzz seeds and regression inputs;
# an uninitialised read or a definite leak fails the run.
VALGRIND="valgrind -q --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite"
$VALGRIND build-check/tests/hosts/corpus_text > /dev/null
for h in text property; do
  $VALGRIND build-check/fuzz/fuzz_$h build-check/fuzz/seeds fuzz/regressions > /dev/null
done

# ---- ThreadSanitizer leg: the corpus on eight threads at once ----
# A third, small build: only the thread test and what it links.
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKLN_WERROR=ON -DKLN_SANITIZE=thread \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
cmake --build build-tsan -j "$JOBS" --target kln_thread_tests
TSAN_OPTIONS="halt_on_error=1 suppressions=$PWD/tools/tsan.supp" build-tsan/tests/kln_thread_tests --gtest_brief=1
# ---- Python package: a fresh virtual environment, `pip install ./python` (which
# builds the libraries and kln2txt once more), then pytest on the samples, the
# corpus and a big generated document.
PYDIR=build-check/python
rm -rf "$PYDIR"
python3 -m venv "$PYDIR/venv"
CMAKE_BUILD_PARALLEL_LEVEL="$JOBS" "$PYDIR/venv/bin/pip" install --quiet ./python pytest
build-check/fuzz/make_seeds "$PYDIR/corpus" >/dev/null
# ---- Spark: PySpark (the package's extra "spark") for python/tests/test_spark.py,
# which runs Spark in local mode on Java 17; those tests skip without Java.
"$PYDIR/venv/bin/pip" install --quiet "pyspark[sql]>=4.0"
KLN_SAMPLES_DIR=build-check/samples KLN_CORPUS_DIR="$PYDIR/corpus" KLN_MAKE_SAMPLES=build-check/tools/make_samples \
  "$PYDIR/venv/bin/python" -m pytest -q -p no:cacheprovider python/tests

# ---- Tika parser (java/): the jar, its unit tests and an integration test in
# tika-server-standard, run against the kln2txt and the samples of the g++ build.
# Maven fetches what it lacks on the first run; later runs need no network.
mvn -B -q -f java/pom.xml -Djava.build.dir="$PWD/build-check/java" \
  -DKLN2TXT="$PWD/build-check/cli/kln2txt" -Dkln.samples="$PWD/build-check/samples" clean verify
