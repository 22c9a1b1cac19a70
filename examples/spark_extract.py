#!/usr/bin/env python3
"""Text, properties and status of every KLN document under INPUT_GLOB, as Parquet.

    spark-submit examples/spark_extract.py 'hdfs:///archive/*/*.kln' hdfs:///archive-text
    python examples/spark_extract.py '/data/docs/*.kln' /tmp/docs-text      # local mode

writes OUTPUT_DIR as Parquet, one row per document (see kln.spark.read_kln), and
prints how many documents ended with each status. Settings come from spark-submit
(--conf); KLN_WORKERS_PER_TASK (default: spark.task.cpus) and KLN_TIMEOUT
(seconds, default 60) tune the conversion.
"""

import os
import sys

from pyspark.sql import SparkSession

from kln.spark import read_kln


def main() -> int:
    if len(sys.argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    source, target = sys.argv[1:]
    spark = SparkSession.builder.appName("kln-extract").getOrCreate()
    workers = int(os.environ.get("KLN_WORKERS_PER_TASK") or spark.conf.get("spark.task.cpus", "1"))
    documents = read_kln(spark, source, workers_per_task=workers, timeout=float(os.environ.get("KLN_TIMEOUT", "60")))
    documents.write.mode("overwrite").parquet(target)
    # Counted from the written files, so no document is converted twice.
    for row in spark.read.parquet(target).groupBy("status").count().orderBy("status").collect():
        print(f"{row['status']:<14} {row['count']:>10}")
    spark.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
