#!/usr/bin/env python3
"""Mutation check: how many small faults planted in filter/ the tests catch.

Each mutant replaces a piece of one source line, found by its text (so a
mutant still applies after a function moves to another file), rebuilds the
filter and the test programs of a configured g++ build incrementally, and
runs its tests: the unit tests first, then kln2txt's tests and the corpus
replay, then the hostile-input sweep, stopping at the first failure. Every
file is restored afterwards, also when the run is interrupted.

    tools/mutation_check.py [--build build-check] [NAME...]

Slow (several minutes), so not part of tools/check.sh. Exits 1 when a
mutant survives, no longer finds its one line or does not build.
"""
import argparse
import pathlib
import signal
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
SOURCES = ROOT / "filter"
TARGETS = ["vtq_txkln", "kln_tests", "cli_tests", "fuzz_text", "fuzz_property", "make_seeds"]
STAGES = ["^kln_tests$", "^(cli_tests|fuzz_seeds|replay_.*)$", "^(fuzz_seeds|mutate)$"]

# name, text found in exactly one line of filter/, what replaces it there
MUTANTS = [
    # word-processing text
    ("wp-layout-bytes", "return b >= 2 && b <= 9 ? ' ' : b;", "return b >= 2 && b <= 8 ? ' ' : b;"),
    ("wp-inline-slot", "if (j <= kInlineSlot) kept = j;", "if (j < kInlineSlot) kept = j;"),
    ("wp-lead-at-end", "*pastEnd = j + 1 >= n;", "*pastEnd = j + 1 > n;"),
    ("wp-block-length", "if (d.length <= 0 || n != d.length) return kFormatError;",
     "if (d.length <= 0) return kFormatError;"),
    # spreadsheet cells
    ("ss-last-column", "if (lastColumn >= kMaxColumns) return kFormatError;",
     "if (lastColumn > kMaxColumns) return kFormatError;"),
    ("ss-cell-in-chunk", "if (!chunk.has(off, 2 + size_t(l))) return kFormatError;", "if (false) return 0;"),
    ("ss-style-beyond", "if (int64_t(idx) < ctx->cellStyleCount) return &ctx->cellStyles[idx];",
     "if (int64_t(idx) <= ctx->cellStyleCount) return &ctx->cellStyles[idx];"),
    # number and date formatting
    ("fmt-percent", "if (code == 2) a = 100 * a;", "if (code == 3) a = 100 * a;"),
    ("fmt-1904-epoch", "cd.serial = value >= -1401 ? value + 1462 : value + 1461;",
     "cd.serial = value + 1462;"),
    ("fmt-midnight", "if (cd.hour == 0) hour12 = 12;", "if (cd.hour == 1) hour12 = 12;"),
    # the delimited writer
    ("wr-line-feeds", "const int feeds = std::min(row - prevRow_, kMaxLineFeeds);",
     "const int feeds = std::min(row - prevRow_ - 1, kMaxLineFeeds);"),
    ("wr-fill", "if (fill_ && pos < column) {", "if (fill_ && pos + 1 < column) {"),
    ("wr-separator", "if (column != 0 && (fill_ || sameRow)) {", "if (column != 0 && (fill_ && sameRow)) {"),
    ("wr-cr-removed", "if (node.text[i] != '\\r') out[o++]", "if (true) out[o++]"),
    ("wr-join-bytes", "if ((last >= 0x7F || (last < 0x20", "if ((last > 0xFE || (last < 0x20"),
    # databases
    ("db-style-field", "if (int32_t(field) >= ctx->dbFieldCount) return kFormatError;",
     "if (int32_t(field) > ctx->dbFieldCount) return kFormatError;"),
    ("db-name-length", "if (f.nameLen > kMaxNameLen) return kNoMemory;",
     "if (f.nameLen >= kMaxNameLen) return kNoMemory;"),
    ("db-long-text", "((value.u8(kValueFlagsAt) & kFlagLengthBit8) ? 256 : 0)",
     "((value.u8(kValueFlagsAt) & kFlagLengthBit8) ? 128 : 0)"),
    ("db-choice-first", "if (!(n >= 1.0 && n <= double(choices.count))) return kOk;",
     "if (!(n >= 1.0 && n < double(choices.count))) return kOk;"),
    ("db-rows-follow", "const uint32_t firstRow = occupied ? ctx->rowCount : 0;", "const uint32_t firstRow = 0;"),
    # byte readers, header, data sets, output
    ("rd-float-tie", "if (((m >> (shift - 1)) & 1) && (kept & 1)) ++kept;",
     "if (((m >> (shift - 1)) & 1)) ++kept;"),
    ("blk-counts-itself", "if ((framing & kCountsItself) && length > 4) length -= 4;",
     "if ((framing & kCountsItself) && length >= 4) length -= 4;"),
    ("blk-signed-length", "if (!(framing & kUnsignedLength) && static_cast<int32_t>(length) <= 0) length = 0;",
     "if ((framing & kUnsignedLength) && static_cast<int32_t>(length) <= 0) length = 0;"),
    ("rd-record-seq", "if (static_cast<int32_t>(view.u16(kRecordSeq)) > ctx->dsetCount) return kFormatError;",
     "if (static_cast<int32_t>(view.u16(kRecordSeq)) >= ctx->dsetCount) return kFormatError;"),
    ("out-size-limit", "if (limitOn && ctx->totalOut > opt->sizeLimit) {", "if (limitOn && ctx->totalOut >= opt->sizeLimit) {"),
    ("prop-long-text", "if (text.size() == 0 || text.size() >= 255) return;",
     "if (text.size() == 0 || text.size() > 255) return;"),
]


def locate(text):
    """The (path, line index) of the one line of filter/ that holds text."""
    hits = []
    for path in sorted(SOURCES.rglob("*")):
        if path.suffix not in (".cpp", ".h"):
            continue
        for i, line in enumerate(path.read_text().split("\n")):
            if text in line:
                hits.append((path, i))
    return hits[0] if len(hits) == 1 else (None, len(hits))


def run(cmd):
    return subprocess.run(cmd, cwd=ROOT, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0


def rebuild(build):
    return run(["cmake", "--build", build, "-j2", "--target", *TARGETS])


def killed_by(build):
    """The stage whose tests fail, or None when every test passes."""
    for stage in STAGES:
        if not run(["ctest", "--test-dir", build, "-R", stage, "--stop-on-failure", "--timeout", "300", "-j2"]):
            return stage
    return None


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", default="build-check", help="a configured g++ build folder")
    parser.add_argument("--list", action="store_true", help="only show where each mutant applies")
    parser.add_argument("names", nargs="*", help="only these mutants")
    args = parser.parse_args()
    if args.list:
        for name, text, _ in MUTANTS:
            path, where = locate(text)
            print(f"{name:18} " + (f"{path.relative_to(ROOT)}:{where + 1}" if path else f"NOT FOUND ({where} lines)"))
        return
    for sig in (signal.SIGTERM, signal.SIGHUP):  # Ctrl-C raises KeyboardInterrupt; all end in `finally`
        signal.signal(sig, lambda *_: sys.exit(130))
    chosen = [m for m in MUTANTS if not args.names or m[0] in args.names]
    if not rebuild(args.build) or killed_by(args.build):
        sys.exit("the unmutated build fails to build or to pass its tests")
    killed, survived, lost = [], [], []
    for name, text, replacement in chosen:
        path, where = locate(text)
        if path is None:
            print(f"{name:18} NOT APPLIED ({where} lines hold its text)", flush=True)
            lost.append(name)
            continue
        original = path.read_text()
        lines = original.split("\n")
        lines[where] = lines[where].replace(text, replacement, 1)
        try:
            path.write_text("\n".join(lines))
            if not rebuild(args.build):
                verdict = "NOT BUILT"
            else:
                stage = killed_by(args.build)
                verdict = f"killed ({stage})" if stage else "SURVIVED"
        finally:
            path.write_text(original)
        {"SURVIVED": survived, "NOT BUILT": lost}.get(verdict, killed).append(name)
        print(f"{name:18} {verdict}  [{path.relative_to(ROOT)}]", flush=True)
    rebuild(args.build)
    print(f"{len(killed)} killed of {len(chosen)}; survived: {' '.join(survived) or 'none'}"
          + (f"; not applied or not built: {' '.join(lost)}" if lost else ""))
    sys.exit(1 if survived or lost else 0)


if __name__ == "__main__":
    main()
