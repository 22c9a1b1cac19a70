// Bottom layer, the block reader: reads from the input, the header's
// fixed part and text records (shared by the driver and the property
// reader), and the reads over a data set's blocks.
#pragma once

#include "kln_context.h"

// The input's one read path (defined beside comm_write, in filecomm.cpp;
// it calls only the runtime): VTQ_FileRead unchanged, the number of
// elements read, below 1 on failure.
size_t comm_read(void *buf, size_t size, size_t count, VTQ_FILE *f);

// ---- Global header. ----
// A buffer the header's fields and tables fit.
constexpr uint32_t kHeaderBufSize = 8192;
// The six text records that follow the fixed part, in file order: title,
// class, description, author, version, keywords.
constexpr int kHeaderTextRecords = 6;
// The header is read field by field. Each read must deliver at least one
// byte; a short read is accepted (the next read then meets the end).
// Reads n bytes into buf, zero-filled first; false when nothing came.
bool ReadHeaderBytes(ConvContext *ctx, uint8_t *buf, uint32_t n);
// Takes the header's text record `index` (file order) as read: its bytes
// in the header buffer, empty when the record is absent.
using HeaderTextFn = void (*)(void *user, int index, const ByteView &text);
// Reads the header's fixed part into buf (kHeaderBufSize bytes), field by
// field: checks the signature, sets docKind and headerVariant. Then reads
// the text records (each a u32 P, and when P != 0 a length byte and that
// many bytes), handing each to take when it is set: the property reader
// keeps them, the driver passes them over. *lastAbsent: whether the last
// record was absent. False when a field brings nothing or a check fails.
bool ReadHeaderStart(ConvContext *ctx, uint8_t *buf, HeaderTextFn take, void *user, bool *lastAbsent);

// ---- Blocks of a data set. ----
// Reads 4 bytes into b, zero-filled first; false when nothing came.
bool ReadWord(ConvContext *ctx, uint8_t *b);

// Reads the 4 bytes that open the next item of a data set into head:
// answers 0 when they are a block length, 0x9700 when they are "DSET"
// (counted in dsetSeen), 0x9800 for "FNTM", 3000 when nothing came.
int ReadBlockHead(ConvContext *ctx, uint8_t *head);

// Reads up to len bytes into buf at offset `at`, growing buf as the bytes
// arrive, so that a length word larger than the file costs no more memory
// than the file holds. Answers the number of bytes read (0 when none came),
// or -1 when the buffer cannot grow.
long ReadGrowing(ConvContext *ctx, VtqBuffer &buf, size_t at, uint32_t len);

// The readers take the blocks they decode through NextBlock: a length
// word, then a body of that length; blocks they only pass over go through
// the skips below. How the length word reads is given in bits; 0 is a
// data set's own blocks: "DSET" and "FNTM" in place of a length end the
// run, and a length of 0 or below (as i32) has no body.
constexpr unsigned kNoTags = 1;          // a tag in place of a length is a length
constexpr unsigned kUnsignedLength = 2;  // every length word is a length
constexpr unsigned kCountsItself = 4;    // a length above 4 counts its own four bytes

// One block as read.
struct Block {
  ByteView bytes;       // the length word, then the body as far as the file holds it
  uint32_t bodyLength;  // the body's declared length; 0: the block has none
  // A body was declared and none of it came: the file ended.
  bool bodyMissing() const { return bodyLength > 0 && bytes.size() == 4; }
};

// Reads the next block into buf, which starts at 8192 bytes, grows to the
// body's length and a spare byte (no further than the file holds) and is
// reused from block to block. Answers 0 with *block set, 0x9700 for
// "DSET" (counted in dsetSeen), 0x9800 for "FNTM", 3000 when no length
// word came, 12 when buf cannot grow. A short body is no failure: the
// bytes it lacks read as 0 through the view.
int NextBlock(ConvContext *ctx, VtqBuffer &buf, Block *block, unsigned framing = 0);

// Passes over the blocks up to the end of the data set: 0x9700, 0x9800,
// or 3000 when the file ends first.
int SkipCurDSET(ConvContext *ctx);
// Passes over one block whose length word holds no tag ("DSET": 3000).
int SkipCurBuff(ConvContext *ctx);
// Passes over n bytes; 3000 when the file ends first.
int ReadFilePass(int32_t n, ConvContext *ctx);
