"""Crash-isolated conversion: a pool of ``kln2txt --serve`` workers.

Each worker is a process of its own (in a session and process group of its own,
so a terminal's Ctrl-C reaches only this process, which then kills them), handed
one document at a time. A worker that crashes or runs past the timeout is killed
and replaced; the documents given to the others go on.
"""

from __future__ import annotations

import atexit
import base64
import json
import os
import selectors
import signal
import subprocess
import time
import weakref
from dataclasses import dataclass
from typing import Any, Dict, Iterable, Iterator, List, Optional

from ._document import Document, Properties, Source, Table
from ._errors import NO_TEXT, OK, SIZE_LIMIT, KlnError, WorkerError, error_for
from ._ffi import PACKAGE_LIB

_ANSWERED = (OK, NO_TEXT, SIZE_LIMIT)


def kln2txt_path() -> str:
    """The kln2txt the pool runs: $KLN2TXT, else the one in the package."""
    return os.environ.get("KLN2TXT") or str(PACKAGE_LIB / "bin" / "kln2txt")


@dataclass
class Result:
    """How one document of a pool's batch ended: ``document`` when ``ok``, else
    ``error`` (a KlnError; a WorkerError when the worker crashed or timed out)."""

    source: Any
    index: int
    document: Optional[Document] = None
    error: Optional[KlnError] = None
    status: str = "ok"  # the worker's status word, or the WorkerError's kind

    @property
    def ok(self) -> bool:
        return self.error is None

    @property
    def kind(self) -> str:
        """"ok"; "crashed", "timeout" or "lost" for a worker that did not answer;
        else the worker's status ("not_kln", "damaged", "refused", "object_failed",
        "no_memory", "cannot_open", "error", "bad_request")."""
        return "ok" if self.error is None else self.status


class _Task:
    def __init__(self, index: int, source: Any, deadline: Optional[float]) -> None:
        self.index, self.source, self.deadline = index, source, deadline
        self.name: Optional[str] = None


class _Worker:
    """One kln2txt --serve process and the answer it is writing."""

    def __init__(self, argv: List[str]) -> None:
        self.proc = subprocess.Popen(
            argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, start_new_session=True
        )
        self.fd = self.proc.stdout.fileno()  # type: ignore[union-attr]
        self.pending = bytearray()
        self.task: Optional[_Task] = None
        self.served = 0

    def send(self, request: bytes) -> bool:
        try:
            self.proc.stdin.write(request)  # type: ignore[union-attr]
            self.proc.stdin.flush()  # type: ignore[union-attr]
            return True
        except (BrokenPipeError, OSError):
            return False

    def read(self) -> Optional[bytes]:
        """A complete answer line, b"" while it is still coming, None at the end of
        the worker's output."""
        chunk = os.read(self.fd, 1 << 20)
        if not chunk:
            return None
        self.pending += chunk
        end = self.pending.find(b"\n")
        if end < 0:
            return b""
        line, self.pending = bytes(self.pending[: end + 1]), self.pending[end + 1 :]
        return line

    def kill(self) -> None:
        """Kills the worker's process group unless the worker was reaped already
        (its number may be another process's by now)."""
        if self.proc.returncode is None:
            try:
                os.killpg(self.proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            self.proc.wait()
        for pipe in (self.proc.stdin, self.proc.stdout):
            try:
                pipe.close()  # type: ignore[union-attr]
            except OSError:
                pass

    def retire(self) -> None:
        """Ends the worker at the end of its input; kills it if it does not go."""
        try:
            self.proc.stdin.close()  # type: ignore[union-attr]
        except OSError:
            pass
        try:
            self.proc.wait(timeout=2)
        except subprocess.TimeoutExpired:
            pass
        self.kill()

    def death(self, task: _Task) -> WorkerError:
        """Reaps a worker that ended by itself; tells how."""
        status = self.proc.wait()
        if status < 0:
            sig = -status
            return WorkerError("crashed", f"worker crashed (signal {sig}, {signal.strsignal(sig)})", task.name, sig)
        return WorkerError("lost", f"worker ended with status {status}", task.name)


_live_pools: "weakref.WeakSet[Pool]" = weakref.WeakSet()


@atexit.register
def _close_live_pools() -> None:
    for pool in list(_live_pools):
        pool.close()


class Pool:
    """N ``kln2txt --serve`` workers converting documents in isolation.

    ``timeout`` (seconds, None for none) bounds each document; a worker is
    replaced after ``max_tasks_per_worker`` documents (None: never). The other
    keywords are extract's options (the text is always UTF-8); ``tables`` asks the
    workers for the tables. Use it as a context manager, or call close(): no worker
    outlives either. One thread at a time.
    """

    def __init__(
        self,
        workers: Optional[int] = None,
        timeout: Optional[float] = 60.0,
        max_tasks_per_worker: Optional[int] = None,
        *,
        tables: bool = False,
        executable: Optional[str] = None,
        **options: Any,
    ) -> None:
        if (workers is not None and workers < 1) or (max_tasks_per_worker is not None and max_tasks_per_worker < 1):
            raise ValueError("workers and max_tasks_per_worker are at least 1")
        self._argv = [executable or kln2txt_path(), "--serve"]
        self._timeout = timeout
        self._max_tasks = max_tasks_per_worker
        self._fields: Dict[str, Any] = {"text": True, "properties": True, "options": options}
        if tables:
            self._fields["tables"] = True
        self._closed = False
        self._idle: List[_Worker] = []
        self._workers: List[_Worker] = []  # every worker started and not yet ended
        _live_pools.add(self)
        for _ in range(workers or os.cpu_count() or 1):
            self._spawn()

    def __enter__(self) -> "Pool":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()

    def close(self) -> None:
        """Ends every worker (those busy are killed)."""
        if getattr(self, "_closed", True):
            return
        self._closed = True
        for worker in self._workers:
            worker.retire() if worker in self._idle else worker.kill()
        self._idle.clear()
        self._workers.clear()

    def _spawn(self) -> None:
        self._workers = [w for w in self._workers if w.proc.returncode is None]
        worker = _Worker(self._argv)
        self._workers.append(worker)
        self._idle.append(worker)

    def map(self, sources: Iterable[Source]) -> List[Result]:
        """A Result for every source, in the order of the sources."""
        return sorted(self.imap_unordered(sources), key=lambda r: r.index)

    def imap_unordered(self, sources: Iterable[Source]) -> Iterator[Result]:
        """Results as the documents finish. Stopping early kills the busy workers."""
        if self._closed:
            raise ValueError("the pool is closed")
        todo = enumerate(sources)
        busy: Dict[int, _Worker] = {}
        selector = selectors.DefaultSelector()
        try:
            while True:
                done = self._start(todo, busy, selector)
                if not busy and not done:
                    return
                done += self._collect(busy, selector)
                yield from done
        finally:
            for worker in busy.values():  # their answers would come too late
                worker.kill()
                if not self._closed:
                    self._spawn()
            selector.close()

    def _start(self, todo: Iterator[tuple], busy: Dict[int, _Worker], selector: Any) -> List[Result]:
        """Hands documents to the idle workers; answers the Results of workers
        found dead on the way."""
        lost: List[Result] = []
        while self._idle:
            item = next(todo, None)
            if item is None:
                break
            worker = self._idle.pop()
            deadline = time.monotonic() + self._timeout if self._timeout else None
            worker.task = task = _Task(item[0], item[1], deadline)
            if worker.send(self._request(task)):
                busy[worker.fd] = worker
                selector.register(worker.fd, selectors.EVENT_READ)
            else:
                lost.append(self._failure(task, worker.death(task)))
                worker.kill()
                self._spawn()
        return lost

    def _collect(self, busy: Dict[int, _Worker], selector: Any) -> List[Result]:
        """Waits for answers, deaths and timeouts; answers their Results."""
        deadlines = [w.task.deadline for w in busy.values() if w.task and w.task.deadline]
        wait = max(0.0, min(deadlines) - time.monotonic()) if deadlines else None
        results: List[Result] = []
        for key, _ in selector.select(wait):
            worker = busy[key.fd]
            line = worker.read()
            if line == b"":
                continue
            task = worker.task
            assert task is not None
            if line is None:
                results.append(self._failure(task, worker.death(task)))
                self._release(worker, busy, selector, worker.kill)
            else:
                results.append(self._result(task, line))
                worker.served += 1
                used_up = self._max_tasks and worker.served >= self._max_tasks
                self._release(worker, busy, selector, worker.retire if used_up else None)
        now = time.monotonic()
        for worker in [w for w in busy.values() if w.task and w.task.deadline and w.task.deadline <= now]:
            task = worker.task
            assert task is not None
            self._release(worker, busy, selector, worker.kill)
            message = f"timed out after {self._timeout:g} s"
            results.append(self._failure(task, WorkerError("timeout", message, task.name)))
        return results

    def _release(self, worker: _Worker, busy: Dict[int, _Worker], selector: Any, end: Any = None) -> None:
        """Takes a worker off the busy list: back to the idle ones, or ended by
        `end` (its kill or retire) and replaced by a new one."""
        selector.unregister(worker.fd)
        del busy[worker.fd]
        worker.task = None
        if end is None:
            self._idle.append(worker)
        else:
            end()
            self._spawn()

    def _request(self, task: _Task) -> bytes:
        source = task.source
        request: Dict[str, Any] = {"id": task.index, **self._fields}
        if isinstance(source, (str, os.PathLike)):
            task.name = os.fsdecode(source)
            request["path"] = os.path.abspath(task.name)
        else:
            data = source if isinstance(source, (bytes, bytearray, memoryview)) else source.read()
            name = getattr(source, "name", None)
            if isinstance(name, str):
                task.name = request["name"] = name
            request["data"] = base64.b64encode(data).decode("ascii")
        return json.dumps(request, ensure_ascii=False).encode("utf-8", "surrogateescape") + b"\n"

    @staticmethod
    def _failure(task: _Task, error: WorkerError) -> Result:
        return Result(task.source, task.index, error=error, status=error.kind)

    def _result(self, task: _Task, line: bytes) -> Result:
        answer = json.loads(line)
        code = answer["code"]
        if code in _ANSWERED:
            props = answer.get("properties")
            tables = [Table(t["number"], t["kind"], t["columns"], t["rows"]) for t in answer.get("tables", [])]
            document = Document(
                answer.get("text", ""),
                Properties.from_dict(props) if props else None,
                tables,
                bool(answer.get("truncated")),
                code,
            )
            return Result(task.source, task.index, document=document, status=answer["status"])
        status = answer["status"]
        if code < 0:
            error = KlnError(code, answer.get("message", ""), task.name)
        else:
            error = error_for(code, task.name, header_readable=status != "not_kln")
        return Result(task.source, task.index, error=error, status=status)
