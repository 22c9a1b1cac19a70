// Output layer: the filter's one output path, and the output file's
// checks for the entry points.
#pragma once

#include "kln_context.h"

// Converts size * count bytes of document text to the output character set
// and writes them to f (file mode) or the stream. Answers the bytes
// written (1 when the conversion yielded nothing), 0 or less on failure,
// -1 once the output-size limit has been passed, 3000 when the conversion
// failed. A write that takes fewer bytes fails and sets writeFailed, after
// which every call answers 0.
int comm_write(const void *text, size_t size, size_t count, VTQ_FILE *f, ConvContext *ctx);

// Whether both paths name one existing file (the same device and inode,
// whatever links lead there).
bool SameFile(const char *a, const char *b);

// Removes the output file of file mode; a device or anything else that is
// not a regular file is left alone.
void RemoveOutput(const ConvContext *ctx);
