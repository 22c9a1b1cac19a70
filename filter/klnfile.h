// Top layer, entry points and the driver: the context of one call opened
// from the caller's arguments, the driver's stages, the run and the
// judgement of a text conversion, and the property reader.
#pragma once

#include "kln_context.h"

// A path the 260-byte buffers of the context cannot hold (or none).
inline bool PathTooLong(const char *path) { return !path || strnlen(path, kPathSize) >= kPathSize; }

// Where a document comes from: a path (shorter than kPathSize), or, with
// path null, the bytes data[0..size) held by the caller.
struct KlnInput {
  const char *path;
  const void *data;
  size_t size;
};
inline KlnInput PathInput(const char *path) { return {path, nullptr, 0}; }
inline KlnInput MemoryInput(const void *data, size_t size) { return {nullptr, data, size}; }

// Opens the input as ctx->inFile (a path is kept in ctx->inPath); false
// when it cannot be opened.
bool OpenInput(ConvContext *ctx, const KlnInput &in);

// Creates the context of a text conversion, fills it from the caller's
// arguments and opens the input. On failure the context is released and
// *out is null; answers 0, 12 or 22.
int OpenTextContext(ConvContext **out, const KlnInput &in, const FilterOptions *options,
                    const KlnCharsetInfo *charset, void *errCallback);

// Runs the text conversion of an opened context and judges the outcome;
// shared by the file, stream and events entry points. The log is named
// after logBase; an empty base has no log name, which fails a log request
// (22).
int RunTextConversion(ConvContext *ctx, const char *logBase);

// ---- Driver and stages. ----
int convertFile(ConvContext *ctx);
int GetGlobalInfo(ConvContext *ctx);
int GetDSetInfo(ConvContext *ctx);
int GetStyleInfo(ConvContext *ctx);
// Builds the style map from a "STYL" record (its length word first; the
// body declares bodyLen bytes of which `held` were read).
int GetStyle(ConvContext *ctx, const uint8_t *record, int32_t bodyLen, size_t held);
// Writes the CellTable: as delimited text, or as table events.
int GetVtqTxt(ConvContext *ctx);
// The CellTable as table events (events.cpp); its delimited text is
// written alongside, only counted, so that the size limit and the result
// codes are those of the text output.
int PutTableEvents(ConvContext *ctx);

// ---- Properties. ----
int GetKlnPropertyInfo(uint8_t *record, ConvContext *ctx);
