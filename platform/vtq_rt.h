/* The runtime layer the filter is built on: files, memory, character
 * conversion, logging, temporary files and embedded OLE documents.
 * libvtq_rt.so.5 implements it; a host with a runtime of its own may put
 * another library with these symbols in its place. */
#ifndef VTQ_RT_H
#define VTQ_RT_H

#include <stddef.h>
#include <stdint.h>

#include "vtq_options.h"
#include "vtq_stream.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Files: buffered, so one-byte reads cost a buffer access. ---- */
typedef struct VTQ_FILE VTQ_FILE;
VTQ_RT_API VTQ_FILE *VTQ_FileOpen(const char *path, const char *mode);
/* A read-only file over data[0..size), which it never writes and never
 * reads past; it behaves as a file of those bytes (a seek beyond the end
 * succeeds and the next read gets nothing). Null when out of memory. */
VTQ_RT_API VTQ_FILE *VTQ_FileOpenMemory(const void *data, size_t size);
VTQ_RT_API size_t VTQ_FileRead(void *buf, size_t size, size_t count, VTQ_FILE *f);
VTQ_RT_API size_t VTQ_FileWrite(const void *buf, size_t size, size_t count, VTQ_FILE *f);
/* whence: 0 from the start, 1 from the current position, 2 from the end. */
VTQ_RT_API int VTQ_FileSeek(VTQ_FILE *f, long offset, int whence);
/* The reading position, or -1. */
VTQ_RT_API long VTQ_FileTell(VTQ_FILE *f);
/* Non-zero when the close or any earlier read or write on f failed. */
VTQ_RT_API int VTQ_FileClose(VTQ_FILE *f);
VTQ_RT_API int VTQ_ASC_remove(const char *path);

/* ---- Memory: every allocation of the filter goes through these. ---- */
VTQ_RT_API void *VTQ_calloc(size_t count, size_t size);
VTQ_RT_API void *VTQ_malloc(size_t size);
VTQ_RT_API void *VTQ_realloc(void *p, size_t size);
VTQ_RT_API void VTQ_free(void *p);

/* ---- Character conversion. ---- */
/* One conversion run: input [in + inPos, in + inLen) is converted into
 * out[outLen, outCap). cconvConvert stops at a character boundary of the
 * input when the output is full; the caller writes out, sets outLen to 0
 * and calls it again while inPos < inLen. */
typedef struct CconvState {
  const unsigned char *in;
  uint32_t inPos;
  uint32_t inLen;
  unsigned char *out;
  uint32_t outLen;
  uint32_t outCap;
  /* Set by cconvInitConvert / cconvChgCharset; owned by the runtime. */
  const void *encoder;   /* the cached output-side converter */
  const void *decoder;   /* the document set's decoder */
  uint32_t firstOutput;  /* a byte-order mark may open the output */
  uint32_t utf8Bom;      /* UTF-8 output opens with EF BB BF */
  uint32_t lineEnds;     /* separator code 1..5 */
  uint32_t subst;        /* substitution code point, 0 = the set's default */
  uint32_t bomDone;
} CconvState;

typedef struct CconvOptions {
  uint32_t convOption;   /* KLN_CONV_… bits */
  uint32_t firstOutput;  /* 1: first output of a call (byte-order mark) */
  uint32_t word8;        /* 1 */
  uint16_t subst;        /* substitution character, 0 = the set's default */
  uint16_t subst2;
  uint8_t byte16;
  uint32_t word4112;     /* 1 */
  uint32_t separatorCode; /* line ends: 1 keep, 2 LF, 3 CR LF, 4 CR, 5 space */
} CconvOptions;

/* Accompanies the document character-set name. */
typedef struct CconvCharsetRecord {
  uint32_t dbcs; /* 1 for "WINDOWS31J" */
  uint32_t reserved;
  uint32_t one;
} CconvCharsetRecord;

/* Output set by name; non-zero when unknown or stateful. */
VTQ_RT_API int cconvInitConvert(CconvState *st, const CconvOptions *opt, const char *outName);
/* Document set by name ("WINDOWS31J" or "ISO-8859-1"; for embedded texts
 * also "UTF-8" and "WINDOWS-1252"); non-zero on failure. */
VTQ_RT_API int cconvChgCharset(CconvState *st, const CconvCharsetRecord *rec, const char *docName);
/* The separator code (1 keep … 5 space) that the caller's KLN_FLAG_LINE_…
 * bits ask for; the first bit set wins, none means keep. */
VTQ_RT_API uint32_t VTQ_LineEndCode(uint32_t flags);
VTQ_RT_API int cconvConvert(CconvState *st);
VTQ_RT_API void cconvTermConvert(CconvState *st);
VTQ_RT_API int VTQ_GetResouceString(int id, char *buf, int size);
VTQ_RT_API int VTQ_GetGroupCharWidth(const char *docName);
/* Copies src without its stand-alone control bytes; dst holds len + 16.
 * Answers the length of the copy. */
VTQ_RT_API uint32_t VTQ_CopyStripControlCode(unsigned char *dst, const unsigned char *src,
                                             uint32_t len, int width, uint32_t dbcs);
/* The length (1 to 4) of the well-formed UTF-8 sequence that starts
 * text[0..n), or 0 when none does: a stray continuation byte, an overlong
 * form, a surrogate, a code point beyond U+10FFFF or a sequence cut short
 * (also when n is 0). */
VTQ_RT_API size_t VTQ_Utf8Length(const void *text, size_t n);
/* The longest prefix of converted (len bytes in options->outCharset) that
 * ends on a character boundary and is at most allowance bytes. */
VTQ_RT_API uint32_t CutStr(const unsigned char *converted, uint32_t len, uint32_t allowance,
                           const FilterOptions *options);

/* ---- Log. ---- */
typedef struct VTQ_LOG VTQ_LOG;
/* base + "." + tag + ".log" into buf (260 bytes); an empty name when it
 * does not fit, which vtq_logfopen refuses. */
VTQ_RT_API int GetLogFileName(const char *base, const char *tag, char *buf);
VTQ_RT_API VTQ_LOG *vtq_logfopen(uint32_t flags, const char *name);
VTQ_RT_API int vtq_logfprintf(uint32_t flags, VTQ_LOG *log, const char *text, int unused);
VTQ_RT_API int vtq_logfprint_path(uint32_t flags, VTQ_LOG *log, const char *path);
VTQ_RT_API int vtq_logfclose(uint32_t flags, VTQ_LOG *log);

/* ---- Temporary files and embedded OLE documents. ---- */
#define VTQ_OLE_STATE_SIZE 4168
#define VTQ_OLE_STATE_TOTAL 4156 /* u32: running output byte total */
VTQ_RT_API int VTQ_ASC_tmpnam(char *name260);
VTQ_RT_API int VTQ_ASC_tmpnam1(const char *base, char *name260);
typedef struct VTQ_OLE VTQ_OLE;
VTQ_RT_API VTQ_OLE *VTQ_2OLEopen(const char *path);
VTQ_RT_API void VTQ_2OLEclose(VTQ_OLE *ole);
VTQ_RT_API int VTQ_GetOleTextWithErrCallback(VTQ_OLE *ole, VTQ_FILE *out,
                                             const FilterOptions *options,
                                             unsigned char *oleState, void *errCallback);
VTQ_RT_API int VTQ_GetOleTextStreamWithErrCallback(VTQ_OLE *ole, VTQ_STREAM *out,
                                                   const FilterOptions *options,
                                                   unsigned char *oleState, void *errCallback);

#ifdef __cplusplus
}
#endif

#endif
