"""Documents per second and MB/s of text through kln.spark.read_kln in Spark's
local mode, against the same pool of kln2txt workers in one process without
Spark, on the generated 300-document set copied 20 times (6,000 documents).

    python bench/spark_bench.py build/tools/make_samples [--copies 20] [--cores 2] [--runs 3]

Spark runs local[CORES] with one worker per task; the pool alone runs CORES
workers. The per-document overhead is the difference of the two wall times over
the number of documents, from the best of each; Spark's start-up is timed apart
and left out of both.
"""

import argparse
import os
import shutil
import sys
import tempfile
import time
from pathlib import Path

import kln
from kln.spark import read_kln

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tools"))
import make_docset  # noqa: E402


def report(label: str, count: int, text_bytes: int, seconds: float) -> None:
    print(f"{label:<28} {count / seconds:8.0f} documents/s {text_bytes / seconds / 1e6:7.2f} MB/s of text"
          f"  ({count} in {seconds:.1f} s)")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("make_samples", type=Path)
    parser.add_argument("--copies", type=int, default=20)
    parser.add_argument("--cores", type=int, default=2)
    parser.add_argument("--runs", type=int, default=3)
    args = parser.parse_args()

    with tempfile.TemporaryDirectory() as work:
        originals = make_docset.build(args.make_samples, Path(work) / "set")
        folder = Path(work) / "copies"
        for copy in range(args.copies):
            (folder / str(copy)).mkdir(parents=True)
            for path in originals:
                shutil.copy(path, folder / str(copy) / path.name)
        paths = sorted(folder.glob("*/*.kln"))
        count = len(paths)

        alone = []
        for _ in range(args.runs):
            start = time.perf_counter()
            with kln.Pool(workers=args.cores) as pool:
                results = list(pool.imap_unordered(paths))
            alone.append(time.perf_counter() - start)
            assert all(r.ok for r in results)
            text_bytes = sum(len(r.document.text.encode()) for r in results)
            report(f"pool alone, {args.cores} workers", count, text_bytes, alone[-1])

        os.environ.setdefault("PYSPARK_PYTHON", sys.executable)
        from pyspark.sql import SparkSession, functions as F

        start = time.perf_counter()
        spark = SparkSession.builder.master(f"local[{args.cores}]").config("spark.ui.enabled", "false").getOrCreate()
        spark.sparkContext.setLogLevel("ERROR")
        spark.range(1).collect()
        print(f"Spark start-up: {time.perf_counter() - start:.1f} s")

        in_spark = []
        for run in range(args.runs):
            start = time.perf_counter()
            documents = read_kln(spark, str(folder), recursiveFileLookup=True)
            totals = documents.agg(F.count("*").alias("n"), F.sum(F.octet_length("text")).alias("bytes"),
                                   F.sum((F.col("status") == "ok").cast("int")).alias("ok")).collect()[0]
            in_spark.append(time.perf_counter() - start)
            assert totals["n"] == totals["ok"] == count and totals["bytes"] == text_bytes
            # The first job also starts Spark's Python workers.
            report(f"Spark local[{args.cores}], job {run + 1}", count, text_bytes, in_spark[-1])
        spark.stop()

    best_alone, best_spark = min(alone), min(in_spark)
    print(f"Spark / pool alone (best runs): {best_alone / best_spark:.2f} of the rate;"
          f" {(best_spark - best_alone) / count * 1e3:.2f} ms added per document (wall, {args.cores} cores)")


if __name__ == "__main__":
    main()
