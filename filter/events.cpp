// Structure events and their entry points. Text reaches the host through
// the writer's single output path (comm_write), so runs of text, the size
// limit and the result codes are those of the text output. A table is
// walked once: each row goes to the host as cells and on to the delimited
// writer, whose text is counted but not written.
#include "events.h"

#include <algorithm>

#include "dbchange.h"
#include "kln_conv.h"
#include "klnfile.h"
#include "sschange.h"

namespace {

// Keeps the host's non-zero answer as the conversion's result.
int Answer(ConvContext *ctx, int code) {
  if (code != 0 && ctx->eventStop == 0) ctx->eventStop = code;
  return code;
}

// Converts len bytes of document text to the output set and appends them
// to out at *used; counted in no total. 0, 12 or 3000.
int ConvertInto(ConvContext *ctx, const uint8_t *text, size_t len, VtqBuffer &out, size_t *used,
                VtqBuffer &scratch) {
  if (len == 0) return kOk;
  ConvRun run;
  int r = CodeConvStart(ctx, run, text, static_cast<uint32_t>(len), 3, &scratch);
  while (r == kOk && (r = CodeConvPiece(ctx, run)) == kOk) {
    if (!out.grow(*used + ctx->outLen + 1)) {
      r = kNoMemory;
      break;
    }
    std::memcpy(out.data() + *used, ctx->outBuf, ctx->outLen);
    *used += ctx->outLen;
    if (!CodeConvMore(run)) break;
  }
  return r;
}

int32_t NumberKind(int code) {
  if (code >= 5 && code <= 13) return KLN_CELL_DATE;
  return code >= 14 && code <= 17 ? KLN_CELL_TIME : KLN_CELL_NUMBER;
}

// The event kind of a formatted cell of the table's kinds.
int32_t CellKind(const ConvContext *ctx, const RowCell &cell) {
  switch (cell.kind) {
    case 3:
      return KLN_CELL_TEXT;
    case 5:
      return KLN_CELL_BOOLEAN;
    case 6:
      return KLN_CELL_ERROR;
    case 16:
      return cell.column < ctx->dbFieldCount ? DbTextKind(ctx->dbFields[cell.column]) : KLN_CELL_TEXT;
    default:
      return NumberKind(CellFormatCode(ctx, cell.kind, cell.style));
  }
}

constexpr size_t kMaxRowCells = 257;  // columns 0 to 256

// The table's rows as events, each passed on to the delimited writer.
class EventTable final : public RowConsumer {
 public:
  EventTable(ConvContext *ctx, DelimitedWriter &text)
      : ctx_(ctx), h_(*ctx->events), text_(text), fill_(!(ctx->options->flags & KLN_FLAG_NO_FILL)),
        quote_(!(ctx->options->flags & KLN_FLAG_NO_QUOTE)) {}

  int start() override {
    if (!cells_.alloc(kMaxRowCells) || !offsets_.alloc(kMaxRowCells)) return kNoMemory;
    started_ = true;
    if (h_.tableStart) {
      const int r = TableStart();
      if (r != kOk) return r;
    }
    return text_.start();
  }

  int row(const CellRow &row) override {
    if (h_.row) {
      const int r = Row(row);
      if (r != kOk) return r;
    }
    return text_.row(row);
  }

  // The end of a started table, unless the host has stopped the conversion.
  int end() {
    if (!started_ || !h_.tableEnd || ctx_->eventStop != 0) return kOk;
    return Answer(ctx_, h_.tableEnd(ctx_->eventUser, 1));
  }

 private:
  int TableStart() {
    const bool database = ctx_->docKind == 3;
    const size_t fields = database && ctx_->dbFields ? size_t(std::max<int16_t>(ctx_->dbFieldCount, 0)) : 0;
    VtqPtr<const char *> names;
    if (!names.alloc(fields)) return kNoMemory;
    size_t used = 0;
    for (size_t i = 0; i < fields; ++i) {
      const DbField &f = ctx_->dbFields[i];
      offsets_[i] = used;
      const auto *name = reinterpret_cast<const uint8_t *>(f.name);
      int r = name ? ConvertInto(ctx_, name, f.nameLen, text_buf_, &used, scratch_) : kOk;
      if (r == kOk && !text_buf_.grow(used + 1)) r = kNoMemory;
      if (r != kOk) return r;
      text_buf_.data()[used++] = '\0';
    }
    for (size_t i = 0; i < fields; ++i) names[i] = reinterpret_cast<const char *>(text_buf_.data() + offsets_[i]);
    const KlnTableInfo info{1, database ? KLN_TABLE_DATABASE : KLN_TABLE_SHEET, ctx_->colCount, uint32_t(fields),
                            names.get()};
    return Answer(ctx_, h_.tableStart(ctx_->eventUser, &info));
  }

  // The row's cells converted, with the empty cells the writer fills
  // before a cell; a failed cell and those after it are left out.
  int Row(const CellRow &row) {
    size_t n = 0, used = 0;
    uint32_t next = 0;  // the column after the previous cell
    for (size_t i = 0; i < row.count && row.cells[i].failed == kOk; ++i) {
      const RowCell &cell = row.cells[i];
      for (; fill_ && next < cell.column && n < kMaxRowCells; ++next)
        cells_[n++] = {row.number, next, KLN_CELL_EMPTY, "", 0};
      const size_t inner = quote_ ? 1 : 0;  // the text between the writer's quotes
      offsets_[n] = used;
      const int r = ConvertInto(ctx_, row.text + cell.at + inner, cell.length - 2 * inner, text_buf_, &used, scratch_);
      if (r != kOk) return r;
      cells_[n] = {row.number, cell.column, CellKind(ctx_, cell), nullptr, used - offsets_[n]};
      ++n;
      next = uint32_t(cell.column) + 1;
    }
    for (size_t i = 0; i < n; ++i) {
      if (!cells_[i].text) cells_[i].text = reinterpret_cast<const char *>(text_buf_.data() + offsets_[i]);
    }
    return n ? Answer(ctx_, h_.row(ctx_->eventUser, row.number, cells_.get(), n)) : kOk;
  }

  ConvContext *ctx_;
  const KlnEventHandlers &h_;
  DelimitedWriter &text_;
  bool fill_, quote_, started_ = false;
  VtqPtr<KlnCell> cells_;   // one row's cells
  VtqPtr<size_t> offsets_;  // where each converted text starts in text_buf_
  VtqBuffer text_buf_;      // one row's converted texts, kept for the next rows
  VtqBuffer scratch_;       // the conversion's stripped copy
};

// Hands converted text to the host's text handler; passes it over while
// text is only counted. false when the host stops the conversion (its
// code is kept in ctx->eventStop).
bool EmitText(ConvContext *ctx, const uint8_t *text, size_t n) {
  if (ctx->countOnly || !ctx->events->text || n == 0) return true;
  return Answer(ctx, ctx->events->text(ctx->eventUser, reinterpret_cast<const char *>(text), n)) == 0;
}

// The output stream of an events conversion: every text the conversion
// writes (comm_write, and the runtime's extraction of an object's text)
// reaches the host's text handler through it.
long ForwardText(void *user, const void *data, long len) {
  return EmitText(static_cast<ConvContext *>(user), static_cast<const uint8_t *>(data), size_t(len)) ? len : 0;
}

int EventsOf(const KlnInput &in, const KlnEventHandlers *handlers, void *user, const FilterOptions *options,
             const KlnCharsetInfo *charset, void *errCallback) {
  if (!handlers || !options || !charset) return kFormatError;
  // Handlers the host's older record does not hold are null.
  KlnEventHandlers h;
  std::memset(&h, 0, sizeof h);
  std::memcpy(&h, handlers, std::min(handlers->structSize, sizeof h));
  ConvContext *ctx;
  const int r = OpenTextContext(&ctx, in, options, charset, errCallback);
  if (r != kOk) return r;
  VTQ_STREAM *text = VTQ_StreamCreate(ForwardText, ctx);
  if (!text) {
    VTQ_FileClose(ctx->inFile);
    closeall(ctx);
    return kNoMemory;
  }
  ctx->streamMode = 2;
  ctx->outStream = text;
  ctx->events = &h;
  ctx->eventUser = user;
  ctx->flags |= kCtxEventMode;
  int result = RunTextConversion(ctx, ctx->inPath);
  if (ctx->eventStop != 0) result = ctx->eventStop;
  VTQ_StreamDestroy(text);
  closeall(ctx);
  return result;
}

}  // namespace

int EmitObjectStart(ConvContext *ctx, int64_t position, const uint8_t *data, size_t size) {
  ++ctx->objectCount;
  if (!ctx->events->objectStart) return kOk;
  const KlnObjectInfo info{ctx->objectCount, position, data, size};
  return Answer(ctx, ctx->events->objectStart(ctx->eventUser, &info));
}

int EmitObjectEnd(ConvContext *ctx, int32_t result) {
  if (!ctx->events->objectEnd) return kOk;
  return Answer(ctx, ctx->events->objectEnd(ctx->eventUser, ctx->objectCount, result));
}

int PutTableEvents(ConvContext *ctx) {
  DelimitedWriter text(ctx);
  EventTable table(ctx, text);
  ctx->countOnly = 1;
  int r = WalkCellRows(ctx, table);
  ctx->countOnly = 0;
  const int end = ctx->eventStop == 0 ? table.end() : kOk;
  return r != kOk ? r : end;
}

extern "C" int GetEventsWithErrCallback(const char *inPath, const KlnEventHandlers *handlers, void *user,
                                        const FilterOptions *options, const KlnCharsetInfo *charset,
                                        void *errCallback) {
  if (PathTooLong(inPath)) return kOpenFailed;
  return EventsOf(PathInput(inPath), handlers, user, options, charset, errCallback);
}

extern "C" int GetEventsFromMemoryWithErrCallback(const void *data, size_t size, const KlnEventHandlers *handlers,
                                                  void *user, const FilterOptions *options,
                                                  const KlnCharsetInfo *charset, void *errCallback) {
  if (!data && size > 0) return kOpenFailed;
  return EventsOf(MemoryInput(data, size), handlers, user, options, charset, errCallback);
}
