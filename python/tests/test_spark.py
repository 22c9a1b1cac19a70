"""kln.spark.read_kln in Spark's local mode: one row per document with the text
kln2txt gives and the tables kln.extract gives, and a document that crashes or
hangs its worker costs only its row."""

import json
import os
import shutil
import sys
from pathlib import Path
from urllib.parse import urlparse

import pytest

if not (shutil.which("java") or os.environ.get("JAVA_HOME")):
    pytest.skip("Spark needs Java: neither java on PATH nor JAVA_HOME", allow_module_level=True)

from conftest import _folder, kln2txt

import kln
from kln.spark import read_kln

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tools"))
import make_docset  # noqa: E402


@pytest.fixture(scope="module")
def spark():
    # The Python workers Spark starts run this interpreter, and they and their
    # kln2txt processes inherit the fault switch from the JVM's environment.
    os.environ["PYSPARK_PYTHON"] = sys.executable
    os.environ["KLN2TXT_TEST_FAULT"] = "crash:crash.kln,hang:hang.kln"
    from pyspark.sql import SparkSession

    session = (
        SparkSession.builder.master("local[2]")
        .config("spark.ui.enabled", "false")
        .config("spark.sql.shuffle.partitions", "2")
        .getOrCreate()
    )
    session.sparkContext.setLogLevel("ERROR")
    yield session
    session.stop()
    del os.environ["KLN2TXT_TEST_FAULT"]


@pytest.fixture(scope="module")
def docset(tmp_path_factory):
    """300 generated documents of every kind, and copies of two of them that
    crash and hang the worker."""
    folder = tmp_path_factory.mktemp("docset")
    paths = make_docset.build(_folder("KLN_MAKE_SAMPLES"), folder, 300)
    shutil.copy(paths[0], folder / "crash.kln")
    shutil.copy(paths[1], folder / "hang.kln")
    return folder, paths


def by_name(rows):
    return {Path(urlparse(row.path).path).name: row for row in rows}


def test_every_document_is_a_row_with_kln2txts_text(spark, docset):
    folder, paths = docset
    reference = [json.loads(line) for line in kln2txt("--json", *map(str, paths)).stdout.decode().splitlines()]
    rows = by_name(read_kln(spark, str(folder), workers_per_task=2, timeout=5, tables=True).collect())

    assert len(rows) == 302
    crashed, hung = rows.pop("crash.kln"), rows.pop("hang.kln")
    assert (crashed.status, crashed.code, crashed.text) == ("crashed", -1, None) and "signal 11" in crashed.error
    assert (hung.status, hung.code, hung.length) == ("timeout", -1, paths[1].stat().st_size)
    for path, ref in zip(paths, reference):
        row = rows[path.name]
        properties = {name: row[name] for name in ("title", "author", "keywords", "description", "class", "version")}
        assert (row.status, row.code, row.error, row.truncated) == ("ok", 0, None, False), path.name
        assert (row.text, properties, row.length) == (ref["text"], ref["properties"], path.stat().st_size), path.name
        tables = [{"number": t.number, "kind": t.kind, "columns": t.columns, "rows": t.rows} for t in kln.extract(path).tables]
        assert [t.asDict(recursive=True) for t in row.tables] == tables, path.name


def test_a_folder_tree_read_recursively(spark, docset, tmp_path):
    _, paths = docset
    tree = {
        "a/letter.kln": paths[0].read_bytes(),
        "a/b/sheet.kln": paths[1].read_bytes(),
        "a/b/c/base.kln": paths[3].read_bytes(),
        "a/b/c/cut.kln": paths[1].read_bytes()[:3000],
        "a/empty.kln": b"",
        "a/b/notes.txt": b"plain text",
        "a/gone.kln": paths[0].read_bytes(),
        "top.kln": paths[2].read_bytes(),
    }
    for name, data in tree.items():
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / name).write_bytes(data)

    found = read_kln(spark, str(tmp_path / "a"), recursiveFileLookup=True, max_bytes=40)
    (tmp_path / "a/gone.kln").unlink()  # listed, but gone by the time it is read
    rows = {urlparse(r.path).path[len(str(tmp_path)) + 1 :]: (r.status, r.length, r.truncated) for r in found.collect()}
    assert rows == {
        "a/letter.kln": ("truncated", len(tree["a/letter.kln"]), True),
        "a/b/sheet.kln": ("truncated", len(tree["a/b/sheet.kln"]), True),
        "a/b/c/base.kln": ("truncated", len(tree["a/b/c/base.kln"]), True),
        "a/b/c/cut.kln": ("damaged", 3000, False),
        "a/empty.kln": ("not_kln", 0, False),
        "a/b/notes.txt": ("not_kln", 10, False),
        "a/gone.kln": ("cannot_open", None, False),
    }
    only_kln = read_kln(spark, str(tmp_path / "a"), recursiveFileLookup=True, pathGlobFilter="*.kln")
    assert only_kln.count() == 5
