/* libvtq_txkln: documents from memory, and documents as structure events.
 *
 * Beside the three path exports of vtq_txkln.h (which stay as they are) a
 * host may hand the filter a document it already holds in memory, and may
 * receive a document as events in document order: runs of text, tables
 * with their rows and cells, and embedded objects with their stored bytes.
 * The delimited text output is built from the same events, so a table's
 * cells carry exactly the texts the text output holds. */
#ifndef VTQ_TXKLN_EXT_H
#define VTQ_TXKLN_EXT_H

#include <stddef.h>
#include <stdint.h>

#include "vtq_txkln.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KLN_EXT_VERSION 1 /* bumped when this interface changes */

/* ---- Documents from memory: data[0..size) is never written and never read past. ----
 * They answer what the path exports answer for the same bytes; no path
 * limit applies to the input. Embedded objects pass through temporary
 * files as they do for a path. A log (KLN_FLAG_LOG) is written beside
 * outPath; the stream and events calls from memory have no name to put one
 * beside and answer 22 when the log is asked for. */
KLN_API int GetTextFromMemoryWithErrCallback(const void *data, size_t size, const char *outPath,
                                             const FilterOptions *options, const KlnCharsetInfo *charset,
                                             void *errCallback);
KLN_API int GetTextStreamFromMemoryWithErrCallback(const void *data, size_t size, VTQ_STREAM *stream,
                                                   const FilterOptions *options, const KlnCharsetInfo *charset,
                                                   void *errCallback);
KLN_API int GetPropertyFromMemory(const void *data, size_t size, const FilterOptions *options, void *record,
                                  const KlnCharsetInfo *charset);

/* ---- Structure events ---- */
typedef enum KlnTableKind { KLN_TABLE_SHEET = 1, KLN_TABLE_DATABASE = 2 } KlnTableKind;
typedef enum KlnCellKind {
  KLN_CELL_EMPTY = 0,
  KLN_CELL_NUMBER = 1,
  KLN_CELL_DATE = 2,
  KLN_CELL_TIME = 3,
  KLN_CELL_TEXT = 4,
  KLN_CELL_BOOLEAN = 5,
  KLN_CELL_ERROR = 6,
  KLN_CELL_CHOICE = 7,
  KLN_CELL_YESNO = 8
} KlnCellKind;

typedef struct KlnTableInfo {
  int32_t number;                /* 1, 2, ... in document order */
  int32_t kind;                  /* KlnTableKind */
  uint32_t columnCount;          /* columns of the table as the delimited writer writes them */
  uint32_t fieldCount;           /* database: number of field names, else 0 */
  const char *const *fieldNames; /* database: fieldCount names, converted to the output set, NUL-ended */
} KlnTableInfo;

typedef struct KlnCell {
  uint32_t row;     /* 0-based row number within the table as written */
  uint32_t column;  /* 0-based column number */
  int32_t kind;     /* KlnCellKind */
  const char *text; /* the cell's text exactly as the delimited writer formats it, without quotes
                       or separators, converted to the output character set */
  size_t length;    /* bytes of text */
} KlnCell;

typedef struct KlnObjectInfo {
  int32_t number;      /* 1, 2, ... embedded objects in document order */
  int64_t position;    /* byte offset of the object's stored bytes in the document */
  const uint8_t *data; /* the object's stored bytes (a compound file), valid during the call */
  size_t size;
} KlnObjectInfo;

/* Every callback may be null (event not wanted). A non-zero answer stops the conversion and becomes
 * the call's result code. Pointers passed are valid only during the callback. */
typedef struct KlnEventHandlers {
  size_t structSize; /* sizeof(KlnEventHandlers) as the host knows it */
  int (*text)(void *user, const char *text, size_t length); /* a run of text in the output set:
                                             word processing, and an embedded object's text */
  int (*tableStart)(void *user, const KlnTableInfo *table);
  int (*row)(void *user, uint32_t row, const KlnCell *cells, size_t count); /* cells of one row in
                                             column order; empty cells the writer would fill included */
  int (*tableEnd)(void *user, int32_t table);
  int (*objectStart)(void *user, const KlnObjectInfo *object);
  int (*objectEnd)(void *user, int32_t object, int32_t result); /* result: extraction's code */
} KlnEventHandlers;

/* Converts the document and hands it to the handlers as events, in document order. The options record
 * applies as for text (output set, line ends, size limit, embedded-object bits, separator is irrelevant).
 * Answers the same result codes as GetTextStreamWithErrCallback.
 * Runs of text carry no byte-order mark. A table's cells are converted one by one, its delimited text is
 * counted for the size limit: a table cut at the limit ends after the row where the text is cut. With
 * objectStart or objectEnd set every embedded object is reported, also when its text is not extracted
 * (KLN_FLAG_OLE_EXTRACT clear: objectEnd's result is 0 and no text comes between start and end). */
KLN_API int GetEventsWithErrCallback(const char *inPath, const KlnEventHandlers *handlers, void *user,
                                     const FilterOptions *options, const KlnCharsetInfo *charset,
                                     void *errCallback);
KLN_API int GetEventsFromMemoryWithErrCallback(const void *data, size_t size, const KlnEventHandlers *handlers,
                                               void *user, const FilterOptions *options,
                                               const KlnCharsetInfo *charset, void *errCallback);

#ifdef __cplusplus
}
#endif

#endif
