"""Text, properties and tables of KLN documents.

    import kln
    doc = kln.extract("letter.kln")          # path, bytes or binary file object
    print(doc.properties.title, doc.text)

``kln.Pool`` converts untrusted documents in ``kln2txt --serve`` worker processes,
so one that crashes or hangs costs only itself.
"""

from ._document import (
    Document,
    Event,
    ObjectEndEvent,
    ObjectStartEvent,
    Properties,
    RowEvent,
    Table,
    TableEndEvent,
    TableStartEvent,
    TextEvent,
    extract,
    iter_events,
    properties,
)
from ._errors import (
    CannotOpenError,
    DamagedError,
    EmbeddedObjectError,
    KlnError,
    NotKlnError,
    OutOfMemoryError,
    WorkerError,
)
from ._pool import Pool, Result, kln2txt_path

__all__ = [
    "CannotOpenError",
    "DamagedError",
    "Document",
    "EmbeddedObjectError",
    "Event",
    "KlnError",
    "NotKlnError",
    "ObjectEndEvent",
    "ObjectStartEvent",
    "OutOfMemoryError",
    "Pool",
    "Properties",
    "Result",
    "RowEvent",
    "Table",
    "TableEndEvent",
    "TableStartEvent",
    "TextEvent",
    "WorkerError",
    "extract",
    "iter_events",
    "kln2txt_path",
    "properties",
]
__version__ = "5.0.0"
