/* libvtq_txkln: text and property extraction from KLN documents.
 *
 * A host loads libvtq_txkln.so.5 and calls one of the three exports below.
 * Every call is independent: it keeps its state in a context of its own
 * and may run on any thread at the same time as other calls. */
#ifndef VTQ_TXKLN_H
#define VTQ_TXKLN_H

#include <stddef.h>
#include <stdint.h>

#include "vtq_options.h"
#include "vtq_stream.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KLN_API __attribute__((visibility("default")))

/* The property record filled by GetProperty: 26964 bytes, cleared, then
 * six NUL-terminated strings in the output character set at these offsets. */
#define KLN_PROPERTY_RECORD_SIZE 26964
#define KLN_PROP_TITLE 0
#define KLN_PROP_AUTHOR 1028
#define KLN_PROP_KEYWORDS 2056
#define KLN_PROP_DESCRIPTION 4112
#define KLN_PROP_CLASS 7196
#define KLN_PROP_VERSION 8480

/* Writes the text of the KLN document inPath into the file outPath. The
 * output file is removed when nothing was produced (3003) or the document
 * was refused (3004, 4001). errCallback is handed on to the extraction of
 * embedded objects unchanged. */
KLN_API int GetTextWithErrCallback(const char *inPath, const char *outPath,
                                   const FilterOptions *options,
                                   const KlnCharsetInfo *charset,
                                   void *errCallback);

/* The same, handing the text to stream. */
KLN_API int GetTextStreamWithErrCallback(const char *inPath, VTQ_STREAM *stream,
                                         const FilterOptions *options,
                                         const KlnCharsetInfo *charset,
                                         void *errCallback);

/* Fills record (KLN_PROPERTY_RECORD_SIZE bytes) with the document's title,
 * author, keywords, description, class and version. Answers 0, 12 or 3000;
 * the record is untouched when the file cannot be opened. */
KLN_API int GetProperty(const char *path, const FilterOptions *options,
                        void *record, const KlnCharsetInfo *charset);

#ifdef __cplusplus
}
#endif

#endif
