"""kln.Pool and kln2txt --serve: documents that crash or hang their worker cost only
themselves, and no worker outlives the pool."""

import base64
import json
import os
import shutil
import signal
import time

import pytest

import kln

from conftest import kln2txt, serve_processes


@pytest.fixture
def batch(samples, tmp_path):
    """The samples, a copy of the letter named crash.kln and one named hang.kln,
    a file object and bytes that are no KLN document."""
    paths = sorted(samples.glob("*.kln"))
    for name in ("crash.kln", "hang.kln"):
        shutil.copy(samples / "letter.kln", tmp_path / name)
    return [*paths, tmp_path / "crash.kln", tmp_path / "hang.kln", open(paths[0], "rb"), b"no KLN document"]


@pytest.mark.parametrize("fault, kind", [("crash", "crashed"), ("hang", "timeout")])
def test_a_bad_document_costs_only_itself(batch, monkeypatch, fault, kind):
    monkeypatch.setenv("KLN2TXT_TEST_FAULT", f"{fault}:{fault}.kln")
    # The timeout leaves room for a loaded machine; only the hang should meet it.
    with kln.Pool(workers=2, timeout=3, max_tasks_per_worker=2, tables=True) as pool:
        results = pool.map(batch)
        assert len(serve_processes()) == 2
    assert not serve_processes()
    by_kind = {r.kind: r for r in results}
    assert by_kind[kind].source.name == f"{fault}.kln" and isinstance(by_kind[kind].error, kln.WorkerError)
    assert by_kind["not_kln"].error.code == 3000 and by_kind["not_kln"].error.kind == "filter"
    good = [r for r in results if r.ok]
    assert len(good) == len(batch) - 2
    for r in good:
        source = r.source.name if hasattr(r.source, "read") else r.source
        assert r.document == kln.extract(source)


@pytest.fixture
def ctrl_c():
    """Ctrl-C raises KeyboardInterrupt, also where the suite runs as a background job of a shell,
    which starts it with SIGINT ignored."""
    previous = signal.signal(signal.SIGINT, signal.default_int_handler)
    yield
    signal.signal(signal.SIGINT, previous)


def interrupt():
    os.kill(os.getpid(), signal.SIGINT)  # as Ctrl-C does
    time.sleep(1)


def fail():
    raise RuntimeError("stop")


@pytest.mark.parametrize("stop, error", [(fail, RuntimeError), (interrupt, KeyboardInterrupt)])
def test_no_worker_outlives_an_exception(batch, ctrl_c, stop, error):
    with pytest.raises(error):
        with kln.Pool(workers=2, timeout=5) as pool:
            for _ in pool.imap_unordered(batch * 3):
                stop()
    assert not serve_processes()


def test_serve_answers_every_line_and_stays_up(samples):
    lines = [
        "not json",
        json.dumps({"id": 1, "path": str(samples / "letter.kln"), "options": {"bogus": 1}}),
        json.dumps({"id": "b", "path": str(samples / "letter.kln"), "text": False}),
        json.dumps({"id": 3, "data": "bm8gS0xO", "properties": False}),
    ]
    ran = kln2txt("--serve", input="\n".join(lines).encode())
    answers = [json.loads(line) for line in ran.stdout.decode().splitlines()]
    assert ran.returncode == 0
    statuses = [(a["id"], a["status"]) for a in answers]
    assert statuses == [(None, "bad_request"), (1, "bad_request"), ("b", "ok"), (3, "not_kln")]
    assert "text" not in answers[2] and answers[2]["properties"] == kln.properties(samples / "letter.kln").to_dict()
    assert "properties" not in answers[3] and answers[3]["code"] == 3000


def test_serve_answers_tables_and_blocks_as_extract_and_the_events_have_them(samples):
    requests = [{"id": name, "path": str(samples / f"{name}.kln"), "objects": True} for name in ("budget", "notice")]
    ran = kln2txt("--serve", input="\n".join(map(json.dumps, requests)).encode())
    budget, notice = (json.loads(line) for line in ran.stdout.decode().splitlines())
    assert budget["tables"] == [vars(t) for t in kln.extract(samples / "budget.kln").tables]
    assert [b["type"] for b in budget["blocks"]] == ["table"]
    objects = [b for b in notice["blocks"] if b["type"] == "object"]
    events = [e for e in kln.iter_events(samples / "notice.kln") if isinstance(e, kln.ObjectStartEvent)]
    assert [base64.b64decode(b["data"]) for b in objects] == [e.data for e in events]
    assert "".join(b["text"] for b in notice["blocks"] if b["type"] != "table") == notice["text"]
