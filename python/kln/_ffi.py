"""Every C prototype of the filter and its runtime, in one module.

The libraries are looked for in the folders of ``KLN_LIBRARY_DIR`` (separated like
PATH) first, then in the package's own ``_lib/lib``. ctypes releases the GIL for
the length of every call, so threads convert in parallel.
"""

from __future__ import annotations

import ctypes
import os
from ctypes import POINTER, Structure, c_char, c_char_p, c_int, c_int32, c_int64, c_size_t, c_uint8
from ctypes import c_uint16, c_uint32, c_void_p
from pathlib import Path
from typing import Any, Optional

from ._errors import NO_TEXT, OK, SIZE_LIMIT, error_for

PACKAGE_LIB = Path(__file__).resolve().parent / "_lib"


def _find(name: str) -> str:
    folders = [f for f in os.environ.get("KLN_LIBRARY_DIR", "").split(os.pathsep) if f]
    for folder in [*folders, str(PACKAGE_LIB / "lib")]:
        candidate = Path(folder) / name
        if candidate.exists():
            return str(candidate)
    raise ImportError(f"{name} is neither in KLN_LIBRARY_DIR nor in {PACKAGE_LIB / 'lib'}")


# The runtime first: the filter needs it, and it is found by its soname once loaded.
rt = ctypes.CDLL(_find("libvtq_rt.so.5"))
txkln = ctypes.CDLL(_find("libvtq_txkln.so.5"))

PROPERTY_RECORD_SIZE = 26964
PROPERTY_OFFSETS = (
    ("title", 0),
    ("author", 1028),
    ("keywords", 2056),
    ("description", 4112),
    ("class", 7196),
    ("version", 8480),
)
MAX_PATH = 260
CHARSET_WINDOWS31J = 2000

FLAG_LINE = {"keep": 0x08, "lf": 0x10, "crlf": 0x20, "cr": 0x40, "space": 0x80}
FLAG_OLE = {"extract": 0x1000, "skip": 0, "refuse": 0x2000}
FLAG_OLE_LIMIT_STOPS = 0x4000
FLAG_OLE_CONTINUE = 0x8000
FLAG_NO_FILL = 0x200000
FLAG_SIZE_LIMIT = 0x400000
FLAG_NO_QUOTE = 0x1000000
FLAG_SEPARATOR = 0x2000000


class FilterOptions(Structure):
    _fields_ = [
        ("outCharset", c_char * 512),
        ("convOption", c_uint32),
        ("flags", c_uint32),
        ("tempFlags", c_uint8),
        ("reserved1", c_uint8 * 3),
        ("sizeLimit", c_uint32),
        ("cellSeparator", c_uint16),
        ("reserved2", c_uint8 * 2),
    ]


class CharsetInfo(Structure):
    _fields_ = [("reserved", c_uint8 * 4), ("charsetCode", c_uint16), ("reserved2", c_uint8 * 2)]


class TableInfo(Structure):
    _fields_ = [
        ("number", c_int32),
        ("kind", c_int32),
        ("columnCount", c_uint32),
        ("fieldCount", c_uint32),
        ("fieldNames", POINTER(c_char_p)),
    ]


class Cell(Structure):
    _fields_ = [
        ("row", c_uint32),
        ("column", c_uint32),
        ("kind", c_int32),
        ("text", ctypes.POINTER(c_char)),
        ("length", c_size_t),
    ]


class ObjectInfo(Structure):
    _fields_ = [("number", c_int32), ("position", c_int64), ("data", POINTER(c_uint8)), ("size", c_size_t)]


TextFn = ctypes.CFUNCTYPE(c_int, c_void_p, POINTER(c_char), c_size_t)
TableStartFn = ctypes.CFUNCTYPE(c_int, c_void_p, POINTER(TableInfo))
RowFn = ctypes.CFUNCTYPE(c_int, c_void_p, c_uint32, POINTER(Cell), c_size_t)
TableEndFn = ctypes.CFUNCTYPE(c_int, c_void_p, c_int32)
ObjectStartFn = ctypes.CFUNCTYPE(c_int, c_void_p, POINTER(ObjectInfo))
ObjectEndFn = ctypes.CFUNCTYPE(c_int, c_void_p, c_int32, c_int32)


class EventHandlers(Structure):
    _fields_ = [
        ("structSize", c_size_t),
        ("text", TextFn),
        ("tableStart", TableStartFn),
        ("row", RowFn),
        ("tableEnd", TableEndFn),
        ("objectStart", ObjectStartFn),
        ("objectEnd", ObjectEndFn),
    ]


def _conversion(code: int, func: Any, args: Any) -> int:
    """errcheck of the conversions: a document without text (3003) and output cut at
    the size limit (3005) are results, every other code but 0 an exception."""
    if code not in (OK, NO_TEXT, SIZE_LIMIT):
        raise error_for(code)
    return code


def _zero(code: int, func: Any, args: Any) -> int:
    if code != OK:
        raise error_for(code)
    return code


def _not_null(pointer: Optional[int], func: Any, args: Any) -> int:
    if not pointer:
        raise MemoryError(f"{func.__name__}: out of memory")
    return pointer


def _declare(lib: ctypes.CDLL, name: str, restype: Any, argtypes: list, errcheck: Any = None) -> Any:
    func = getattr(lib, name)
    func.restype, func.argtypes = restype, argtypes
    if errcheck is not None:
        func.errcheck = errcheck
    return func


_OPT, _CS = POINTER(FilterOptions), POINTER(CharsetInfo)
_HANDLERS = POINTER(EventHandlers)

StreamDestroy = _declare(rt, "VTQ_StreamDestroy", None, [c_void_p])
StreamCreateBuffer = _declare(rt, "VTQ_StreamCreateBuffer", c_void_p, [], _not_null)
StreamBufferData = _declare(rt, "VTQ_StreamBufferData", c_void_p, [c_void_p, POINTER(c_size_t)])

GetTextStream = _declare(
    txkln, "GetTextStreamWithErrCallback", c_int, [c_char_p, c_void_p, _OPT, _CS, c_void_p], _conversion
)
GetTextStreamFromMemory = _declare(
    txkln,
    "GetTextStreamFromMemoryWithErrCallback",
    c_int,
    [c_void_p, c_size_t, c_void_p, _OPT, _CS, c_void_p],
    _conversion,
)
GetProperty = _declare(txkln, "GetProperty", c_int, [c_char_p, _OPT, c_void_p, _CS], _zero)
GetPropertyFromMemory = _declare(
    txkln, "GetPropertyFromMemory", c_int, [c_void_p, c_size_t, _OPT, c_void_p, _CS], _zero
)

# The structure events, where the filter has them (None otherwise).
HAS_EVENTS = hasattr(txkln, "GetEventsWithErrCallback")
GetEvents = GetEventsFromMemory = None
if HAS_EVENTS:
    GetEvents = _declare(
        txkln, "GetEventsWithErrCallback", c_int, [c_char_p, _HANDLERS, c_void_p, _OPT, _CS, c_void_p], _conversion
    )
    GetEventsFromMemory = _declare(
        txkln,
        "GetEventsFromMemoryWithErrCallback",
        c_int,
        [c_void_p, c_size_t, _HANDLERS, c_void_p, _OPT, _CS, c_void_p],
        _conversion,
    )


class TextBuffer:
    """A stream that collects the text in one growing buffer on the C side, so no
    Python code runs per write."""

    def __enter__(self) -> "TextBuffer":
        self.stream = StreamCreateBuffer()
        return self

    def take(self) -> bytes:
        """The bytes written so far."""
        length = c_size_t()
        data = StreamBufferData(self.stream, ctypes.byref(length))
        return ctypes.string_at(data, length.value) if length.value else b""

    def __exit__(self, *exc: object) -> None:
        StreamDestroy(self.stream)


def options(
    encoding: str,
    line_ends: str,
    ole: str,
    max_bytes: Optional[int],
    latin1: bool,
    separator: str,
    quote: bool,
    fill: bool,
    ole_continue: bool,
) -> tuple:
    """The FilterOptions and CharsetInfo records for the keyword arguments of the
    public functions; ValueError for a value the filter does not take."""
    if line_ends not in FLAG_LINE:
        raise ValueError(f"line_ends is one of {', '.join(FLAG_LINE)}, not {line_ends!r}")
    if ole not in FLAG_OLE:
        raise ValueError(f"ole is one of {', '.join(FLAG_OLE)}, not {ole!r}")
    name = encoding.encode("ascii")
    if not 0 < len(name) <= 32:
        raise ValueError("the output character set name has 1 to 32 characters")
    sep = separator.encode("latin-1")
    if len(sep) != 1:
        raise ValueError("separator is one single-byte character")
    opt = FilterOptions()
    opt.outCharset = name
    opt.flags = FLAG_LINE[line_ends] | FLAG_OLE[ole]
    if sep != b",":
        opt.flags |= FLAG_SEPARATOR
        opt.cellSeparator = sep[0]
    if max_bytes is not None:
        if not 0 <= max_bytes <= 0xFFFFFFFF:
            raise ValueError("max_bytes is from 0 to 4294967295")
        opt.flags |= FLAG_SIZE_LIMIT
        opt.sizeLimit = max_bytes
    opt.flags |= (0 if quote else FLAG_NO_QUOTE) | (0 if fill else FLAG_NO_FILL)
    opt.flags |= FLAG_OLE_CONTINUE if ole_continue else 0
    charset = CharsetInfo()
    charset.charsetCode = 0 if latin1 else CHARSET_WINDOWS31J
    return opt, charset
