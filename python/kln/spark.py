"""Extraction as a step of a Spark job.

    from kln.spark import read_kln
    df = read_kln(spark, "hdfs:///archive/**/*.kln", workers_per_task=2, timeout=60)
    df.write.parquet("hdfs:///archive-text")

Spark's ``binaryFile`` source finds the documents (paths, globs, and its options
``recursiveFileLookup``, ``pathGlobFilter``, ``modifiedBefore``/``modifiedAfter``).
Each partition is converted in its Python worker through one ``kln.Pool``: the
pool starts once per partition, and a document that crashes or hangs its
``kln2txt --serve`` process costs only its own row, so a task never fails for a
document and Spark's retries never turn one bad document into a failed job.

The documents' bytes are read inside the task, not by Spark's file scan: the scan
leaves out empty files and fails the task on a file it cannot read, where here
both become rows with a status; and a task holds only the documents its workers
are busy with, not a batch of contents. Local and shared-mount paths (``file:``)
go to the workers by path; any other scheme is read with ``pyarrow.fs``.

pyspark 4 or later (with the pyarrow and pandas it needs) is an optional
dependency: the extra ``spark`` of the package. The listing needs a classic
session (not Spark Connect): the file names stay in the driver's JVM.
"""

from __future__ import annotations

import functools
import math
import os
from typing import TYPE_CHECKING, Any, Dict, Iterable, Iterator, List, Optional, Tuple, Union
from urllib.parse import unquote, urlparse

from ._document import PROPERTY_NAMES
from ._errors import CANNOT_OPEN
from ._pool import Pool, Result

if TYPE_CHECKING:  # pragma: no cover
    import pyarrow
    from pyspark.sql import DataFrame, SparkSession

__all__ = ["read_kln", "SCHEMA", "TABLES_FIELD"]

# One row per document. text and the properties are null when the document could
# not be converted; code is the filter's result code, -1 when the worker crashed
# or timed out.
SCHEMA = (
    "path string, length long, text string, title string, author string, keywords string, "
    "description string, class string, version string, truncated boolean, status string, "
    "code int, error string"
)
TABLES_FIELD = "tables array<struct<number: int, kind: string, columns: array<string>, rows: array<array<string>>>>"

# binaryFile's own options; every other keyword of read_kln is a conversion option.
_LISTING_OPTIONS = ("recursiveFileLookup", "pathGlobFilter", "modifiedBefore", "modifiedAfter")

# Rows handed to Spark at a time.
_ROWS_PER_BATCH = 256


def read_kln(
    spark: "SparkSession",
    paths: Union[str, Iterable[str]],
    *,
    workers_per_task: int = 1,
    timeout: Optional[float] = 60,
    tables: bool = False,
    docs_per_partition: int = 2000,
    max_tasks_per_worker: Optional[int] = None,
    **options: Any,
) -> "DataFrame":
    """A DataFrame of one row per document found at ``paths`` (files, folders or
    globs, as ``spark.read.format("binaryFile").load`` takes them).

    ``workers_per_task`` kln2txt processes convert each partition (match it to
    ``spark.task.cpus``); ``timeout`` seconds bound each document; partitions hold
    about ``docs_per_partition`` documents. ``recursiveFileLookup``,
    ``pathGlobFilter``, ``modifiedBefore`` and ``modifiedAfter`` go to the
    listing; the other keywords are ``kln.extract``'s conversion options
    (``line_ends``, ``ole``, ``max_bytes``, ``latin1``, ...). With ``tables`` the
    rows carry each table's kind, columns and rows of cell texts.

    Columns: path, length, text, the six properties (title, author, keywords,
    description, class, version), truncated, status ("ok", "no_text",
    "truncated", "not_kln", "damaged", "refused", "object_failed", "no_memory",
    "cannot_open", "crashed", "timeout", "lost", "error"), code, error.
    """
    if workers_per_task < 1 or docs_per_partition < 1:
        raise ValueError("workers_per_task and docs_per_partition are at least 1")
    listing_options = {k: str(v).lower() if isinstance(v, bool) else str(v) for k, v in options.items() if k in _LISTING_OPTIONS}
    conversion = {k: v for k, v in options.items() if k not in _LISTING_OPTIONS}
    found = spark.read.format("binaryFile").options(**listing_options).load(paths if isinstance(paths, str) else list(paths))
    files, count = _file_list(spark, found)
    # Whole rounds of tasks, so that no core idles through a last lone partition.
    cores = spark.sparkContext.defaultParallelism
    partitions = max(1, min(count, math.ceil(count / docs_per_partition / cores) * cores))
    from pyspark.sql.pandas.types import to_arrow_schema
    from pyspark.sql.types import _parse_datatype_string

    schema = _parse_datatype_string(SCHEMA + (", " + TABLES_FIELD if tables else ""))
    convert = functools.partial(
        _convert_partition,
        dict(workers=workers_per_task, timeout=timeout, max_tasks_per_worker=max_tasks_per_worker, tables=tables, **conversion),
        to_arrow_schema(schema),
    )
    return files.repartition(partitions).mapInArrow(convert, schema)


def _file_list(spark: "SparkSession", found: "DataFrame") -> Tuple["DataFrame", int]:
    """Every file the listing found, empty ones included, as a column ``path``,
    and their number. The names stay in the JVM: handing millions of them through
    Python one by one would take longer than the listing."""
    from pyspark.sql import DataFrame

    jvm = spark.sparkContext._jvm
    names = found._jdf.inputFiles()
    dataset = spark._jsparkSession.createDataset(
        jvm.scala.collection.immutable.ArraySeq.unsafeWrapArray(names), jvm.org.apache.spark.sql.Encoders.STRING()
    )
    return DataFrame(dataset.toDF(), spark).withColumnRenamed("value", "path"), len(names)


def _convert_partition(
    settings: Dict[str, Any], schema: "pyarrow.Schema", batches: Iterator["pyarrow.RecordBatch"]
) -> Iterator["pyarrow.RecordBatch"]:
    """mapInArrow's function: one pool for the whole partition, one row out for
    every path in, handed on in batches of at most _ROWS_PER_BATCH as documents
    finish, so a task holds the text of that many documents at most."""
    import pyarrow

    with Pool(**settings) as pool:
        for batch in batches:
            rows: List[Dict[str, Any]] = []
            for row in _rows(pool, batch.column("path").to_pylist(), bool(settings["tables"])):
                rows.append(row)
                if len(rows) == _ROWS_PER_BATCH:
                    yield pyarrow.RecordBatch.from_pylist(rows, schema=schema)
                    rows = []
            if rows:
                yield pyarrow.RecordBatch.from_pylist(rows, schema=schema)


def _rows(pool: Pool, paths: List[str], tables: bool) -> Iterator[Dict[str, Any]]:
    """The row of every path, in the order the documents finish. A file that
    cannot be read never reaches the pool: its row comes last."""
    sent: List[Tuple[str, Optional[int]]] = []  # by the pool's index
    unreadable: List[Dict[str, Any]] = []

    def sources() -> Iterator[Any]:
        for path in paths:
            source, length, problem = _open(path)
            if problem is None:
                sent.append((path, length))
                yield source
            else:
                unreadable.append(_failure_row(path, length, "cannot_open", CANNOT_OPEN, problem, tables))

    for result in pool.imap_unordered(sources()):
        yield _row(*sent[result.index], result, tables)
    yield from unreadable


class _Named(bytes):
    """A document's bytes with the base name the worker reports it under."""

    name: str


def _open(uri: str) -> Tuple[Any, Optional[int], Optional[str]]:
    """The pool's source for a listed file, its length, and why it cannot be read
    (None when it can). Local files go by path: the worker opens them itself."""
    parsed = urlparse(uri)
    try:
        if parsed.scheme in ("", "file"):
            local = unquote(parsed.path)
            return local, os.stat(local).st_size, None
        data = _read_remote(uri)
    except (OSError, ValueError) as error:
        return None, None, str(error) or type(error).__name__
    source = _Named(data)
    source.name = os.path.basename(parsed.path)
    return source, len(data), None


@functools.lru_cache(maxsize=None)
def _filesystem(scheme: str, authority: str) -> Any:
    from pyarrow import fs

    return fs.FileSystem.from_uri(f"{scheme}://{authority}/")[0]


def _read_remote(uri: str) -> bytes:
    parsed = urlparse(uri)
    with _filesystem(parsed.scheme, parsed.netloc).open_input_file(unquote(parsed.path)) as f:
        return f.read()


def _row(path: str, length: Optional[int], result: Result, tables: bool) -> Dict[str, Any]:
    doc = result.document
    if doc is None:
        error = result.error
        assert error is not None
        return _failure_row(path, length, result.status, error.code, error.message, tables)
    props = doc.properties.to_dict() if doc.properties else {}
    row = {"path": path, "length": length, "text": doc.text, **{name: props.get(name) for name in PROPERTY_NAMES}}
    row.update(truncated=doc.truncated, status=result.status, code=doc.code, error=None)
    if tables:
        row["tables"] = [{"number": t.number, "kind": t.kind, "columns": t.columns, "rows": t.rows} for t in doc.tables]
    return row


def _failure_row(path: str, length: Optional[int], status: str, code: int, message: str, tables: bool) -> Dict[str, Any]:
    row: Dict[str, Any] = {"path": path, "length": length, "text": None, **dict.fromkeys(PROPERTY_NAMES)}
    row.update(truncated=False, status=status, code=code, error=message)
    if tables:
        row["tables"] = None
    return row
