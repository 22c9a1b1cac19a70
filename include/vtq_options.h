/* What the filter and its runtime layer share: the caller's options, their
 * flag bits and the result codes. The runtime (vtq_rt.h) builds on this
 * header alone, so a host can build a runtime of its own without the
 * filter's header; vtq_txkln.h includes it. */
#ifndef VTQ_OPTIONS_H
#define VTQ_OPTIONS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. */
#define KLN_OK 0
#define KLN_ERR_NOMEM 12           /* memory could not be obtained */
#define KLN_ERR_OPEN 22            /* input, output or log cannot be opened,
                                      or a path of 260 bytes or more */
#define KLN_ERR_TEXT_BLOCK 25      /* a text block could not be read */
#define KLN_ERR_FORMAT 3000        /* read, format, conversion or write failure */
#define KLN_ERR_NO_TEXT 3003       /* the document produced no text */
#define KLN_ERR_OLE_REFUSED 3004   /* refused for its embedded object */
#define KLN_ERR_SIZE_LIMIT 3005    /* output cut at the size limit */
#define KLN_ERR_OLE_FAILED 4001    /* an embedded object could not be converted */
/* Codes of the runtime's extractor for embedded objects. The filter
 * reports any of them as 4001, or passes the object over when
 * KLN_FLAG_OLE_CONTINUE is set. */
#define KLN_ERR_OLE_UNSUPPORTED 4100 /* an object that holds no text the runtime reads */
#define KLN_ERR_OLE_TOO_DEEP 4101    /* documents embedded more than 4 levels deep */

/* Bits of FilterOptions.flags. */
#define KLN_FLAG_LINE_KEEP 0x08u      /* line ends as the filter writes them */
#define KLN_FLAG_LINE_LF 0x10u        /* every CR, LF, CR LF becomes LF */
#define KLN_FLAG_LINE_CRLF 0x20u      /* … becomes CR LF */
#define KLN_FLAG_LINE_CR 0x40u        /* … becomes CR */
#define KLN_FLAG_LINE_SPACE 0x80u     /* … becomes one space */
#define KLN_FLAG_OLE_EXTRACT 0x1000u  /* extract text of embedded objects */
#define KLN_FLAG_OLE_REFUSE 0x2000u   /* refuse documents with embedded objects */
#define KLN_FLAG_OLE_LIMIT_STOPS 0x4000u /* limit reached in an object ends output */
#define KLN_FLAG_OLE_CONTINUE 0x8000u /* a failed object does not end the conversion */
#define KLN_FLAG_LOG 0x10000u         /* write a log beside the output */
#define KLN_FLAG_NO_FILL 0x200000u    /* empty cells are not written as empty fields */
#define KLN_FLAG_SIZE_LIMIT 0x400000u /* honour FilterOptions.sizeLimit */
#define KLN_FLAG_NO_QUOTE 0x1000000u  /* no double quotes around cells */
#define KLN_FLAG_SEPARATOR 0x2000000u /* cellSeparator instead of ',' */

/* Bits of FilterOptions.convOption. */
#define KLN_CONV_UTF8_BOM 0x1u /* UTF-8 output opens with a byte-order mark */

/* Bits of FilterOptions.tempFlags. */
#define KLN_TEMP_BESIDE_OUTPUT 0x01u /* temporary files beside the output path */

/* The caller's options. Only the named fields are read. */
typedef struct FilterOptions {
  char outCharset[512];   /* output character set name, at most 32 chars */
  uint32_t convOption;    /* KLN_CONV_… bits */
  uint32_t flags;         /* KLN_FLAG_… bits */
  uint8_t tempFlags;      /* KLN_TEMP_… bits */
  uint8_t reserved1[3];
  uint32_t sizeLimit;     /* output bytes allowed with KLN_FLAG_SIZE_LIMIT */
  uint16_t cellSeparator; /* low byte separates cells with KLN_FLAG_SEPARATOR */
  uint8_t reserved2[2];
} FilterOptions;

/* The document's character set. */
#define KLN_CHARSET_WINDOWS31J 2000 /* any other code: ISO-8859-1 */
typedef struct KlnCharsetInfo {
  uint8_t reserved[4];
  uint16_t charsetCode; /* KLN_CHARSET_WINDOWS31J or another code */
  uint8_t reserved2[2];
} KlnCharsetInfo;

/* Paths are NUL-terminated and shorter than 260 bytes. */
#define KLN_MAX_PATH 260

#ifdef __cplusplus
}
#endif

/* The records' layouts are fixed: hosts built with other compilers share them. */
#ifdef __cplusplus
#define KLN_LAYOUT_CHECK static_assert
#else
#define KLN_LAYOUT_CHECK _Static_assert
#endif
KLN_LAYOUT_CHECK(offsetof(FilterOptions, outCharset) == 0, "FilterOptions layout");
KLN_LAYOUT_CHECK(offsetof(FilterOptions, convOption) == 512, "FilterOptions layout");
KLN_LAYOUT_CHECK(offsetof(FilterOptions, flags) == 516, "FilterOptions layout");
KLN_LAYOUT_CHECK(offsetof(FilterOptions, tempFlags) == 520, "FilterOptions layout");
KLN_LAYOUT_CHECK(offsetof(FilterOptions, sizeLimit) == 524, "FilterOptions layout");
KLN_LAYOUT_CHECK(offsetof(FilterOptions, cellSeparator) == 528, "FilterOptions layout");
KLN_LAYOUT_CHECK(offsetof(KlnCharsetInfo, charsetCode) == 4, "KlnCharsetInfo layout");
#undef KLN_LAYOUT_CHECK

#endif
