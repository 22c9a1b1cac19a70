"""Documents converted in this process: text, properties, tables and structure events."""

from __future__ import annotations

import codecs
import ctypes
import os
from dataclasses import dataclass, field
from typing import Any, BinaryIO, Dict, Iterator, List, Optional, Union

from . import _ffi
from ._errors import CANNOT_OPEN, NO_TEXT, SIZE_LIMIT, KlnError, error_for

Source = Union[str, "os.PathLike[str]", "os.PathLike[bytes]", bytes, bytearray, memoryview, BinaryIO]

PROPERTY_NAMES = tuple(name for name, _ in _ffi.PROPERTY_OFFSETS)


@dataclass(frozen=True)
class Properties:
    """The six properties of a document's header (``class_`` is its class)."""

    title: str = ""
    author: str = ""
    keywords: str = ""
    description: str = ""
    class_: str = ""
    version: str = ""

    @classmethod
    def from_dict(cls, values: Dict[str, str]) -> "Properties":
        return cls(*(values.get(name, "") for name in PROPERTY_NAMES))

    def to_dict(self) -> Dict[str, str]:
        """The properties under the names kln2txt uses: title, …, class, version."""
        values = (self.title, self.author, self.keywords, self.description, self.class_, self.version)
        return dict(zip(PROPERTY_NAMES, values))


@dataclass
class Table:
    """A sheet or database table: ``kind`` "sheet" or "database"; ``columns`` the
    column letters (sheet) or field names (database); ``rows`` the cell texts as
    the text output writes them (a row it leaves empty is an empty list)."""

    number: int
    kind: str
    columns: List[str]
    rows: List[List[str]] = field(default_factory=list)

    def to_pandas(self) -> Any:
        """The table as a pandas DataFrame of strings (needs pandas)."""
        import pandas

        width = len(self.columns)
        return pandas.DataFrame([(row + [""] * width)[:width] for row in self.rows], columns=self.columns)


@dataclass
class Document:
    """A converted document. ``code`` is the filter's result: 0, 3003 (no text:
    ``text`` is empty) or 3005 (``truncated``: the text stops at ``max_bytes``)."""

    text: str
    properties: Optional[Properties]
    tables: List[Table] = field(default_factory=list)
    truncated: bool = False
    code: int = 0


# Structure events, as iter_events yields them.
@dataclass(frozen=True)
class TextEvent:
    text: str


@dataclass(frozen=True)
class TableStartEvent:
    number: int
    kind: str
    column_count: int
    field_names: List[str]


@dataclass(frozen=True)
class RowEvent:
    row: int
    cells: List[str]
    kinds: List[int]


@dataclass(frozen=True)
class TableEndEvent:
    number: int


@dataclass(frozen=True)
class ObjectStartEvent:
    number: int
    position: int
    data: bytes


@dataclass(frozen=True)
class ObjectEndEvent:
    number: int
    code: int


Event = Union[TextEvent, TableStartEvent, RowEvent, TableEndEvent, ObjectStartEvent, ObjectEndEvent]

_TABLE_KINDS = {1: "sheet", 2: "database"}


def _codec(encoding: str) -> str:
    """The Python codec of an output set the filter knows by another name."""
    try:
        return codecs.lookup({"windows-31j": "cp932"}.get(encoding.lower(), encoding)).name
    except LookupError:
        raise ValueError(f"{encoding!r} is not a character set Python can decode") from None


def column_letters(count: int) -> List[str]:
    """A, B, …, Z, AA, AB, … for `count` columns."""
    letters = []
    for n in range(1, count + 1):
        name = ""
        while n:
            n, rest = divmod(n - 1, 26)
            name = chr(65 + rest) + name
        letters.append(name)
    return letters


class _Input:
    """A source as the filter takes it: a path, or bytes in memory."""

    def __init__(self, source: Source) -> None:
        self.name: Optional[str] = None
        self.path: Optional[bytes] = None
        self.data: Any = None
        if isinstance(source, (str, os.PathLike)):
            path = os.fsencode(source)
            self.name = os.fsdecode(path)
            if len(path) < _ffi.MAX_PATH:
                self.path = path
            else:  # the filter takes shorter paths only
                with open(path, "rb") as f:
                    self._hold(f.read())
        elif isinstance(source, (bytes, bytearray, memoryview)):
            self._hold(source)
        elif hasattr(source, "read"):
            data = source.read()
            name = getattr(source, "name", None)
            self.name = name if isinstance(name, str) else None
            if not isinstance(data, (bytes, bytearray)):
                raise TypeError("a file object must be opened in binary mode")
            self._hold(data)
        else:
            raise TypeError(f"a path, bytes or a binary file object, not {type(source).__name__}")

    def _hold(self, data: Any) -> None:
        """Keeps the bytes and a pointer the filter reads them through (no copy
        of bytes or of a writable buffer)."""
        view = memoryview(data).cast("B")
        self.size = len(view)
        if isinstance(data, bytes) or view.readonly:
            self.data = data if isinstance(data, bytes) else bytes(view)
            self.pointer: Any = self.data
        else:
            self.data = view
            self.pointer = (ctypes.c_char * self.size).from_buffer(view)

    def properties(self, opt: Any, charset: Any, codec: str) -> Properties:
        record = ctypes.create_string_buffer(_ffi.PROPERTY_RECORD_SIZE)
        try:
            if self.path is not None:
                _ffi.GetProperty(self.path, opt, record, charset)
            else:
                _ffi.GetPropertyFromMemory(self.pointer, self.size, opt, record, charset)
        except KlnError as e:
            openable = self.path is None or os.access(self.path, os.R_OK)
            raise error_for(e.code if openable else CANNOT_OPEN, self.name, header_readable=False) from None
        raw = record.raw
        ends = [offset for _, offset in _ffi.PROPERTY_OFFSETS[1:]] + [len(raw)]
        fields = zip(_ffi.PROPERTY_OFFSETS, ends)
        return Properties(*(raw[at:end].split(b"\0", 1)[0].decode(codec, "replace") for (_, at), end in fields))

    def text(self, stream: int, opt: Any, charset: Any) -> int:
        if self.path is not None:
            return _ffi.GetTextStream(self.path, stream, opt, charset, None)
        return _ffi.GetTextStreamFromMemory(self.pointer, self.size, stream, opt, charset, None)

    def events(self, handlers: Any, opt: Any, charset: Any) -> int:
        if not _ffi.HAS_EVENTS:
            raise KlnError(-1, "this filter has no structure events", self.name)
        if self.path is not None:
            return _ffi.GetEvents(self.path, ctypes.byref(handlers), None, opt, charset, None)
        return _ffi.GetEventsFromMemory(self.pointer, self.size, ctypes.byref(handlers), None, opt, charset, None)


def _collect_events(doc: _Input, opt: Any, charset: Any, codec: str, tables_only: bool = False) -> List[Event]:
    """The document's structure events in document order (with `tables_only`,
    no text and object events: no Python code runs per text run)."""
    events: List[Event] = []
    add = events.append

    def text(_: Any, data: Any, length: int) -> int:
        add(TextEvent(ctypes.string_at(data, length).decode(codec, "replace")))
        return 0

    def table_start(_: Any, info: Any) -> int:
        t = info.contents
        names = [t.fieldNames[i].decode(codec, "replace") for i in range(t.fieldCount)]
        add(TableStartEvent(t.number, _TABLE_KINDS.get(t.kind, str(t.kind)), t.columnCount, names))
        return 0

    def row(_: Any, number: int, cells: Any, count: int) -> int:
        texts = [ctypes.string_at(cells[i].text, cells[i].length).decode(codec, "replace") for i in range(count)]
        add(RowEvent(number, texts, [cells[i].kind for i in range(count)]))
        return 0

    def object_start(_: Any, info: Any) -> int:
        o = info.contents
        add(ObjectStartEvent(o.number, o.position, ctypes.string_at(o.data, o.size)))
        return 0

    def object_end(_: Any, number: int, code: int) -> int:
        add(ObjectEndEvent(number, code))
        return 0

    def table_end(_: Any, number: int) -> int:
        add(TableEndEvent(number))
        return 0

    handlers = _ffi.EventHandlers(
        ctypes.sizeof(_ffi.EventHandlers),
        _ffi.TextFn() if tables_only else _ffi.TextFn(text),
        _ffi.TableStartFn(table_start),
        _ffi.RowFn(row),
        _ffi.TableEndFn(table_end),
        _ffi.ObjectStartFn() if tables_only else _ffi.ObjectStartFn(object_start),
        _ffi.ObjectEndFn() if tables_only else _ffi.ObjectEndFn(object_end),
    )
    doc.events(handlers, opt, charset)
    return events


def tables_of(events: List[Event]) -> List[Table]:
    """The tables the events describe."""
    tables: List[Table] = []
    for e in events:
        if isinstance(e, TableStartEvent):
            columns = e.field_names if e.kind == "database" else column_letters(e.column_count)
            tables.append(Table(e.number, e.kind, columns))
        elif isinstance(e, RowEvent) and tables:
            rows = tables[-1].rows
            rows.extend([] for _ in range(len(rows), e.row))  # rows the writer leaves empty
            rows.append(e.cells)
    return tables


def extract(
    source: Source,
    *,
    encoding: str = "UTF-8",
    line_ends: str = "lf",
    ole: str = "extract",
    max_bytes: Optional[int] = None,
    latin1: bool = False,
    separator: str = ",",
    quote: bool = True,
    fill: bool = True,
    ole_continue: bool = False,
    tables: bool = True,
) -> Document:
    """Converts a document: its text, properties and (with ``tables``, from the
    structure events where the filter has them) tables.

    ``source`` is a path, the document's bytes, or a binary file object.
    ``encoding`` is the output set the text is converted to (and decoded from);
    ``line_ends`` keep, lf, crlf, cr or space; ``ole`` extract, skip or refuse for
    embedded objects; ``max_bytes`` cuts the text (the Document is then
    ``truncated``); ``latin1``: the document's text is ISO-8859-1, not Windows-31J.
    A document without text is an empty Document; failures raise a KlnError.
    """
    opt, charset = _ffi.options(encoding, line_ends, ole, max_bytes, latin1, separator, quote, fill, ole_continue)
    codec = _codec(encoding)
    doc = _Input(source)
    try:
        props: Optional[Properties] = doc.properties(opt, charset, codec)
    except KlnError:
        props = None
    with _ffi.TextBuffer() as buffer:
        try:
            code = doc.text(buffer.stream, opt, charset)
        except KlnError as e:
            raise error_for(e.code, doc.name, header_readable=props is not None) from None
        text = buffer.take().decode(codec)
    found = []
    if tables and code != NO_TEXT and _ffi.HAS_EVENTS:
        found = tables_of(_collect_events(doc, opt, charset, codec, tables_only=True))
    return Document(text, props, found, code == SIZE_LIMIT, code)


def properties(source: Source, *, encoding: str = "UTF-8", latin1: bool = False) -> Properties:
    """The title, author, keywords, description, class and version of a document
    (NotKlnError when its header cannot be read)."""
    opt, charset = _ffi.options(encoding, "lf", "extract", None, latin1, ",", True, True, False)
    return _Input(source).properties(opt, charset, _codec(encoding))


def iter_events(
    source: Source, *, encoding: str = "UTF-8", line_ends: str = "lf", ole: str = "extract", latin1: bool = False
) -> Iterator[Event]:
    """The document's structure in document order: text runs, tables (start, rows,
    end) and embedded objects (start with their bytes, end with their result)."""
    opt, charset = _ffi.options(encoding, line_ends, ole, None, latin1, ",", True, True, False)
    doc = _Input(source)
    try:
        return iter(_collect_events(doc, opt, charset, _codec(encoding)))
    except KlnError as e:
        raise error_for(e.code, doc.name) from None
