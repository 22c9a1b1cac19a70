"""The exceptions of the package: one base class carrying the filter's result code."""

from __future__ import annotations

from typing import Optional

OK = 0
NO_MEMORY = 12
CANNOT_OPEN = 22
TEXT_BLOCK = 25
FORMAT = 3000
NO_TEXT = 3003
OBJECT_REFUSED = 3004
SIZE_LIMIT = 3005
OBJECT_FAILED = 4001

# The texts kln2txt shows for each code.
_MESSAGES = {
    NO_MEMORY: "out of memory",
    CANNOT_OPEN: "cannot open the input, the output or the log",
    TEXT_BLOCK: "a text block could not be read",
    FORMAT: "damaged document: its contents cannot be read",
    OBJECT_REFUSED: "refused: the document holds an embedded object (--ole refuse)",
    OBJECT_FAILED: "an embedded object could not be converted (--ole-continue goes on without it)",
}
_NOT_KLN = "not a KLN document"


class KlnError(Exception):
    """A document could not be converted. ``code`` is the filter's result code
    (-1 for a worker that did not answer), ``source`` what was asked for;
    ``kind`` is "filter" (a WorkerError's is "crashed", "timeout" or "lost")."""

    kind = "filter"

    def __init__(self, code: int, message: str, source: object = None) -> None:
        super().__init__(message)
        self.code = code
        self.message = message
        self.source = source

    def __str__(self) -> str:
        return f"{self.source}: {self.message}" if self.source is not None else self.message


class NotKlnError(KlnError):
    """The input is no KLN document: its header cannot be read."""


class DamagedError(KlnError):
    """A KLN document whose contents cannot be read (3000 with a readable header, 25)."""


class EmbeddedObjectError(KlnError):
    """An embedded object refused the document (3004, ``ole="refuse"``) or failed (4001)."""

    @property
    def refused(self) -> bool:
        return self.code == OBJECT_REFUSED


class OutOfMemoryError(KlnError, MemoryError):
    """The filter could not obtain memory (12)."""


class CannotOpenError(KlnError, OSError):
    """The input could not be opened (22)."""


class WorkerError(KlnError):
    """A pool worker ended without an answer: ``kind`` is "crashed" (``signal`` tells
    which), "timeout" (killed after the pool's timeout) or "lost" (it exited)."""

    def __init__(self, kind: str, message: str, source: object = None, signal: Optional[int] = None) -> None:
        super().__init__(-1, message, source)
        self.kind = kind
        self.signal = signal


_CLASSES = {
    NO_MEMORY: OutOfMemoryError,
    CANNOT_OPEN: CannotOpenError,
    TEXT_BLOCK: DamagedError,
    FORMAT: DamagedError,
    OBJECT_REFUSED: EmbeddedObjectError,
    OBJECT_FAILED: EmbeddedObjectError,
}


def error_for(code: int, source: object = None, *, header_readable: bool = True) -> KlnError:
    """The exception for a result code; 3000 on a document whose header cannot be
    read is a NotKlnError."""
    if code == FORMAT and not header_readable:
        return NotKlnError(code, _NOT_KLN, source)
    cls = _CLASSES.get(code, KlnError)
    return cls(code, _MESSAGES.get(code, f"unexpected result code {code}"), source)
