// Temporary files and embedded OLE documents.
//
// An embedded object reaches the runtime as a compound file of its own.
// Its text is found in one of two places: an "\x01Ole10Native" stream, the
// package that wraps a file dropped into a document, or a "CONTENTS"
// stream. A packaged KLN document is converted by the filter itself, from
// memory, loaded by name as the runtime loads any filter; a packaged or
// CONTENTS text is converted here with the same choices as the filter's
// own output.
//
// These are the runtime's own allocations: they use the C allocator and
// are not seen by the filter allocator's failure hook.
#include <dlfcn.h>
#include <fcntl.h>
#include <gsf/gsf-infile-impl.h>
#include <gsf/gsf-infile-msole.h>
#include <gsf/gsf-infile.h>
#include <gsf/gsf-input-stdio.h>
#include <gsf/gsf-input.h>
#include <iconv.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vtq_charset_name.h"
#include "vtq_rt.h"

struct VTQ_OLE {
  GsfInfile *root;
  gsf_off_t fileSize;  // no stream of the file can hold more
};

namespace {

constexpr int kFormatError = KLN_ERR_FORMAT;
constexpr int kSizeLimit = KLN_ERR_SIZE_LIMIT;
constexpr int kNoText = KLN_ERR_NO_TEXT;
constexpr int kMaxNesting = 4;

// How deep this thread is inside embedded KLN documents.
thread_local int t_nesting = 0;

// ---- The compound-file reader, loaded on first use ----
//
// Only documents with embedded objects need the reader, and it brings GLib
// and a score of other libraries with it: it is loaded when the first
// object is met, so that a process converting plain documents never maps
// them. An object met while it cannot be loaded is one that cannot be read.

struct Reader {
  void (*init)(void);
  GsfInput *(*input_stdio_new)(const char *, GError **);
  gsf_off_t (*input_size)(GsfInput *);
  const guint8 *(*input_read)(GsfInput *, size_t, guint8 *);
  GsfInfile *(*infile_msole_new)(GsfInput *, GError **);
  int (*infile_num_children)(GsfInfile *);
  const char *(*infile_name_by_index)(GsfInfile *, int);
  void (*object_unref)(gpointer);
  void (*error_free)(GError *);
  guint (*log_set_handler)(const gchar *, GLogLevelFlags, GLogFunc, gpointer);
  void (*log_remove_handler)(const gchar *, guint);
  void (*log_default_handler)(const gchar *, GLogLevelFlags, const gchar *, gpointer);
};

// Filled once by LoadReader; every call below follows a successful load.
Reader g_reader;

template <class Fn>
bool Find(void *lib, const char *name, Fn *fn) {
  *fn = reinterpret_cast<Fn>(dlsym(lib, name));
  return *fn != nullptr;
}

// Opens the reader and finds its functions; false when it is not there.
bool OpenReader() {
  void *lib = dlopen(VTQ_GSF_SONAME, RTLD_NOW | RTLD_LOCAL);
  if (!lib) return false;
  Reader &r = g_reader;
  const bool found = Find(lib, "gsf_init", &r.init) && Find(lib, "gsf_input_stdio_new", &r.input_stdio_new) &&
                     Find(lib, "gsf_input_size", &r.input_size) && Find(lib, "gsf_input_read", &r.input_read) &&
                     Find(lib, "gsf_infile_msole_new", &r.infile_msole_new) &&
                     Find(lib, "gsf_infile_num_children", &r.infile_num_children) &&
                     Find(lib, "gsf_infile_name_by_index", &r.infile_name_by_index) &&
                     Find(lib, "g_object_unref", &r.object_unref) && Find(lib, "g_error_free", &r.error_free) &&
                     Find(lib, "g_log_set_handler", &r.log_set_handler) &&
                     Find(lib, "g_log_remove_handler", &r.log_remove_handler) &&
                     Find(lib, "g_log_default_handler", &r.log_default_handler);
  if (!found) {
    dlclose(lib);
    return false;
  }
  r.init();  // the library stays loaded for the life of the process
  return true;
}

// Loads the reader (once per process, whichever thread comes first);
// false when it is not there.
bool LoadReader() {
  static const bool loaded = OpenReader();
  return loaded;
}

// ---- The compound-file reader's complaints ----
//
// The reader checks its own invariants and complains on standard error
// when a damaged file breaks one, which a damaged object may always do; the
// object is answered with a result code instead. Which checks a file
// breaks is the reader's own affair, so they cannot all be avoided
// beforehand. A handler is therefore set for the reader's domains around
// each call only, and removed after it; it drops what this thread's call
// makes the reader say and hands every other thread's messages on, so a
// host's own use of the reader logs as before.

thread_local int t_quiet = 0;  // calls into the reader under way on this thread

void DropOwnMessages(const gchar *domain, GLogLevelFlags level, const gchar *text, gpointer) {
  if (t_quiet == 0) g_reader.log_default_handler(domain, level, text, nullptr);
}

class QuietReader {
 public:
  QuietReader() {
    ++t_quiet;
    for (size_t i = 0; i < kDomains; ++i)
      ids_[i] = g_reader.log_set_handler(kDomain[i], kLevels, DropOwnMessages, nullptr);
  }
  ~QuietReader() {
    for (size_t i = 0; i < kDomains; ++i) g_reader.log_remove_handler(kDomain[i], ids_[i]);
    --t_quiet;
  }
  QuietReader(const QuietReader &) = delete;
  QuietReader &operator=(const QuietReader &) = delete;

 private:
  static constexpr size_t kDomains = 2;
  static constexpr const char *kDomain[kDomains] = {"libgsf", "libgsf:msole"};
  static constexpr GLogLevelFlags kLevels =
      GLogLevelFlags(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING | G_LOG_LEVEL_MESSAGE);
  guint ids_[kDomains];
};

// ---- Temporary files ----

// Creates a new, empty, owner-only file named dir/vtqXXXXXX in name.
int MakeTempIn(const char *dir, size_t dirLen, char *name) {
  const int n = std::snprintf(name, KLN_MAX_PATH, "%.*s/vtqXXXXXX", static_cast<int>(dirLen), dir);
  if (n <= 0 || n >= KLN_MAX_PATH) return 0;
  const int fd = mkostemp(name, O_CLOEXEC);  // exclusive creation, mode 0600
  if (fd < 0) return 0;
  close(fd);
  return 1;
}

const char *TempDir() {
  const char *dir = std::getenv("TMPDIR");
  return dir && *dir ? dir : "/tmp";
}

// ---- Where the text goes ----

// The output file or stream, with the running total of the state record.
struct Sink {
  VTQ_FILE *file;
  VTQ_STREAM *stream;
  const FilterOptions *options;
  unsigned char *state;
  void *errCallback;  // handed on to an inner document's conversion

  bool write(const void *data, size_t n) const {
    if (n == 0) return true;
    if (stream) return VTQ_WriteStream(stream, static_cast<long>(n), data) != -1;
    return VTQ_FileWrite(data, 1, n, file) == n;
  }
  uint32_t total() const {
    uint32_t v;
    std::memcpy(&v, state + VTQ_OLE_STATE_TOTAL, 4);
    return v;
  }
  void setTotal(uint32_t v) const { std::memcpy(state + VTQ_OLE_STATE_TOTAL, &v, 4); }
  bool limitOn() const { return (options->flags & KLN_FLAG_SIZE_LIMIT) != 0; }
};

// ---- Converting an embedded text ----

// True when all of text[0..len) is valid in the iconv set named.
bool ValidIn(const char *set, const uint8_t *text, size_t len) {
  iconv_t cd = iconv_open("UTF-32LE", set);
  if (cd == iconv_t(-1)) return false;
  char *in = reinterpret_cast<char *>(const_cast<uint8_t *>(text));
  size_t inLeft = len;
  bool ok = true;
  while (ok && inLeft > 0) {
    char out[4096];
    char *o = out;
    size_t outLeft = sizeof out;
    if (iconv(cd, &in, &inLeft, &o, &outLeft) == size_t(-1) && errno != E2BIG) ok = false;
  }
  iconv_close(cd);
  return ok;
}

// A text file holds no control bytes but tab, line feed, form feed and
// carriage return.
bool LooksLikeText(const uint8_t *data, size_t len) {
  for (size_t i = 0; i < len; ++i) {
    const uint8_t b = data[i];
    if (b < 0x20 && b != '\t' && b != '\n' && b != '\f' && b != '\r') return false;
  }
  return true;
}

bool ValidUtf8(const uint8_t *text, size_t len) {
  for (size_t i = 0, n; i < len; i += n) {
    if ((n = VTQ_Utf8Length(text + i, len - i)) == 0) return false;
  }
  return true;
}

// The set a text is read in: UTF-8 when it is valid UTF-8, else
// Windows-31J when valid, else Windows-1252 (which takes almost anything).
const char *TextCharset(const uint8_t *text, size_t len) {
  if (ValidUtf8(text, len)) return "UTF-8";
  if (ValidIn("WINDOWS-31J", text, len)) return "WINDOWS31J";
  return "WINDOWS-1252";
}

// Hands one converted piece to the output, cut at the size limit as the
// filter's own writes are; *stopped once cut or once the output failed.
void PutPiece(const Sink &sink, const uint8_t *out, uint32_t n, uint64_t produced, bool *stopped, bool *failed) {
  if (*stopped) return;
  const FilterOptions *opt = sink.options;
  const uint64_t used = uint64_t(sink.total()) + produced;
  if (sink.limitOn() && used + n > opt->sizeLimit) {
    const uint32_t allowance = used >= opt->sizeLimit ? 0 : static_cast<uint32_t>(opt->sizeLimit - used);
    n = CutStr(out, n, allowance, opt);
    *stopped = true;
  }
  if (!sink.write(out, n)) *failed = *stopped = true;
}

// Converts text (in the document set docName) to the output; the whole
// converted length counts into the running total.
int WriteConverted(const Sink &sink, const uint8_t *text, size_t len, const char *docName) {
  const FilterOptions *opt = sink.options;
  char outName[33];
  std::memcpy(outName, opt->outCharset, 32);
  outName[32] = '\0';
  CconvOptions copt{};
  copt.convOption = opt->convOption;
  copt.firstOutput = 0;  // the outer output has begun: no byte-order mark
  copt.word8 = 1;
  copt.word4112 = 1;
  copt.separatorCode = VTQ_LineEndCode(opt->flags);
  if (std::strcmp(outName, "ISO-8859-1") == 0) copt.subst = copt.subst2 = '?';
  CconvCharsetRecord record{std::strcmp(docName, "WINDOWS31J") == 0 ? 1u : 0u, 0, 1};
  CconvState st{};
  if (cconvInitConvert(&st, &copt, outName) != 0 || cconvChgCharset(&st, &record, docName) != 0) {
    cconvTermConvert(&st);
    return kFormatError;
  }
  auto *stripped = static_cast<uint8_t *>(std::malloc(len + 16));
  if (!stripped) {
    cconvTermConvert(&st);
    return KLN_ERR_NOMEM;
  }
  uint8_t out[16384];
  st.in = stripped;
  st.inLen = VTQ_CopyStripControlCode(stripped, text, static_cast<uint32_t>(len), 1, record.dbcs);
  st.out = out;
  st.outCap = sizeof out;
  uint64_t produced = 0;
  bool stopped = false, failed = false;
  int result = 0;
  while (st.inPos < st.inLen) {
    const uint32_t before = st.inPos;
    st.outLen = 0;
    if (cconvConvert(&st) != 0 || (st.outLen == 0 && st.inPos == before)) {
      result = kFormatError;
      break;
    }
    PutPiece(sink, out, st.outLen, produced, &stopped, &failed);
    produced += st.outLen;
  }
  cconvTermConvert(&st);
  std::free(stripped);
  sink.setTotal(static_cast<uint32_t>(sink.total() + produced));
  if (result != 0) return result;
  if (sink.limitOn() && sink.total() > opt->sizeLimit) return kSizeLimit;
  return failed ? kFormatError : 0;
}

int WriteText(const Sink &sink, const uint8_t *text, size_t len) {
  if (!LooksLikeText(text, len)) return KLN_ERR_OLE_UNSUPPORTED;
  const char *set = TextCharset(text, len);
  if (std::strcmp(set, "UTF-8") == 0 && len >= 3 && std::memcmp(text, "\xEF\xBB\xBF", 3) == 0) {
    text += 3;  // the byte-order mark is no text
    len -= 3;
  }
  return WriteConverted(sink, text, len, set);
}

// ---- A KLN document inside the object ----

typedef int (*GetTextStreamFn)(const void *, size_t, VTQ_STREAM *, const FilterOptions *, const KlnCharsetInfo *,
                               void *);

struct NestedOut {
  const Sink *sink;
  uint64_t written;
};

long WriteNested(void *user, const void *data, long len) {
  auto *n = static_cast<NestedOut *>(user);
  if (!n->sink->write(data, static_cast<size_t>(len))) return 0;
  n->written += static_cast<uint64_t>(len);
  return len;
}

// The caller's options for the inner document: no log, no byte-order mark
// (the sets that open with one are named by their little-endian form), and
// what is left of the size allowance.
void NestedOptions(const Sink &sink, FilterOptions *inner) {
  *inner = *sink.options;
  inner->flags &= ~KLN_FLAG_LOG;
  inner->convOption &= ~KLN_CONV_UTF8_BOM;
  char name[33], norm[40];
  std::memcpy(name, inner->outCharset, 32);
  name[32] = '\0';
  vtq::NormaliseCharsetName(name, norm, sizeof norm);
  if (std::strcmp(norm, "UTF16") == 0) std::strcpy(inner->outCharset, "UTF-16LE");
  if (std::strcmp(norm, "UTF32") == 0) std::strcpy(inner->outCharset, "UTF-32LE");
  if (sink.limitOn()) {
    const uint32_t total = sink.total();
    inner->sizeLimit = total >= sink.options->sizeLimit ? 0 : sink.options->sizeLimit - total;
  }
}

// The inner document is handed to the filter from memory: it needs no
// temporary file of its own.
int WriteKln(const Sink &sink, const uint8_t *data, size_t len) {
  if (t_nesting >= kMaxNesting) return KLN_ERR_OLE_TOO_DEEP;
  void *lib = dlopen("libvtq_txkln.so.5", RTLD_NOW | RTLD_LOCAL);
  if (!lib) return KLN_ERR_OLE_UNSUPPORTED;
  auto fn = reinterpret_cast<GetTextStreamFn>(dlsym(lib, "GetTextStreamFromMemoryWithErrCallback"));
  int result = KLN_ERR_OLE_UNSUPPORTED;
  if (fn) {
    NestedOut out{&sink, 0};
    VTQ_STREAM *stream = VTQ_StreamCreate(WriteNested, &out);
    FilterOptions inner;
    NestedOptions(sink, &inner);
    KlnCharsetInfo charset{};
    charset.charsetCode = KLN_CHARSET_WINDOWS31J;
    ++t_nesting;
    result = stream ? fn(data, len, stream, &inner, &charset, sink.errCallback) : KLN_ERR_NOMEM;
    --t_nesting;
    VTQ_StreamDestroy(stream);
    const uint64_t total = sink.total() + out.written;
    if (result == kSizeLimit) {
      // The inner filter stopped past the allowance: so does the total.
      const uint64_t past = uint64_t(sink.options->sizeLimit) + 1;
      sink.setTotal(static_cast<uint32_t>(total > past ? total : past));
    } else {
      sink.setTotal(static_cast<uint32_t>(total));
      if (result == kNoText) result = 0;  // an embedded document without text
    }
  }
  dlclose(lib);
  return result;
}

// ---- The object's streams ----

// Reads a whole stream; null when it cannot be read.
uint8_t *ReadStream(const VTQ_OLE *ole, GsfInput *in, size_t *len) {
  const gsf_off_t size = g_reader.input_size(in);
  if (size < 0 || size > ole->fileSize) return nullptr;
  auto *data = static_cast<uint8_t *>(std::malloc(static_cast<size_t>(size) + 1));
  if (!data) return nullptr;
  if (size > 0 && !g_reader.input_read(in, static_cast<size_t>(size), data)) {
    std::free(data);
    return nullptr;
  }
  *len = static_cast<size_t>(size);
  return data;
}

uint32_t Le32(const uint8_t *p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

// The packaged file of an "\x01Ole10Native" stream: a size, a type word,
// the label and the source path (NUL-terminated), a type word, the
// temporary path with its length, and the data with its length.
bool PackagedData(const uint8_t *p, size_t len, const uint8_t **data, size_t *dataLen) {
  size_t at = 4 + 2;
  if (len < at) return false;
  for (int text = 0; text < 2; ++text) {  // label, source path
    const void *nul = std::memchr(p + at, 0, len - at);
    if (!nul) return false;
    at = static_cast<size_t>(static_cast<const uint8_t *>(nul) - p) + 1;
  }
  if (len - at < 8) return false;
  const uint32_t pathLen = Le32(p + at + 4);
  at += 8;
  if (len - at < pathLen || len - at - pathLen < 4) return false;
  at += pathLen;
  const uint32_t n = Le32(p + at);
  at += 4;
  if (len - at < n) return false;
  *data = p + at;
  *dataLen = n;
  return true;
}

bool IsKln(const uint8_t *data, size_t len) { return len >= 8 && std::memcmp(data + 4, "RVZT", 4) == 0; }

int ExtractPackage(const VTQ_OLE *ole, GsfInput *in, const Sink &sink) {
  size_t len = 0;
  uint8_t *stream = ReadStream(ole, in, &len);
  if (!stream) return kFormatError;
  const uint8_t *data;
  size_t dataLen;
  int result = kFormatError;
  if (PackagedData(stream, len, &data, &dataLen))
    result = IsKln(data, dataLen) ? WriteKln(sink, data, dataLen) : WriteText(sink, data, dataLen);
  std::free(stream);
  return result;
}

int ExtractContents(const VTQ_OLE *ole, GsfInput *in, const Sink &sink) {
  size_t len = 0;
  uint8_t *text = ReadStream(ole, in, &len);
  if (!text) return kFormatError;
  const int result = WriteText(sink, text, len);
  std::free(text);
  return result;
}

// The named stream of the root storage, or null when it is absent or
// damaged. The reader's class is asked directly: the generic lookup
// complains on standard error about a damaged stream, which is answered
// with an error code here anyway.
GsfInput *Child(GsfInfile *root, const char *name) {
  const int n = g_reader.infile_num_children(root);
  for (int i = 0; i < n; ++i) {
    const char *child = g_reader.infile_name_by_index(root, i);
    if (!child || std::strcmp(child, name) != 0) continue;
    GError *err = nullptr;
    // The class is read directly: the checked cast would need the type system's functions.
    auto *cls = reinterpret_cast<GsfInfileClass *>(reinterpret_cast<GTypeInstance *>(root)->g_class);
    GsfInput *in = cls->child_by_index(root, i, &err);
    if (err) g_reader.error_free(err);
    return in;
  }
  return nullptr;
}

int ExtractOle(VTQ_OLE *ole, const Sink &sink) {
  if (!ole || !sink.options || !sink.state || (!sink.file && !sink.stream)) return kFormatError;
  QuietReader quiet;
  GsfInput *in = Child(ole->root, "\x01Ole10Native");
  int result;
  if (in) {
    result = ExtractPackage(ole, in, sink);
  } else if ((in = Child(ole->root, "CONTENTS")) != nullptr) {
    result = ExtractContents(ole, in, sink);
  } else {
    return KLN_ERR_OLE_UNSUPPORTED;
  }
  g_reader.object_unref(in);
  return result;
}

}  // namespace

extern "C" {

int VTQ_ASC_tmpnam(char *name260) {
  if (!name260) return 0;
  const char *dir = TempDir();
  return MakeTempIn(dir, std::strlen(dir), name260);
}

int VTQ_ASC_tmpnam1(const char *base, char *name260) {
  if (!name260) return 0;
  if (!base || !*base) return VTQ_ASC_tmpnam(name260);
  const char *slash = std::strrchr(base, '/');
  if (!slash) return MakeTempIn(".", 1, name260);
  return MakeTempIn(base, slash == base ? 1 : static_cast<size_t>(slash - base), name260);
}

VTQ_OLE *VTQ_2OLEopen(const char *path) {
  if (!path || !LoadReader()) return nullptr;
  QuietReader quiet;
  GsfInput *file = g_reader.input_stdio_new(path, nullptr);
  if (!file) return nullptr;
  const gsf_off_t size = g_reader.input_size(file);
  GsfInfile *root = g_reader.infile_msole_new(file, nullptr);
  g_reader.object_unref(file);
  if (!root) return nullptr;
  auto *ole = static_cast<VTQ_OLE *>(std::malloc(sizeof(VTQ_OLE)));
  if (!ole) {
    g_reader.object_unref(root);
    return nullptr;
  }
  *ole = {root, size};
  return ole;
}

void VTQ_2OLEclose(VTQ_OLE *ole) {
  if (!ole) return;
  QuietReader quiet;
  g_reader.object_unref(ole->root);
  std::free(ole);
}

int VTQ_GetOleTextWithErrCallback(VTQ_OLE *ole, VTQ_FILE *out, const FilterOptions *options, unsigned char *oleState,
                                  void *errCallback) {
  return ExtractOle(ole, Sink{out, nullptr, options, oleState, errCallback});
}

int VTQ_GetOleTextStreamWithErrCallback(VTQ_OLE *ole, VTQ_STREAM *out, const FilterOptions *options,
                                        unsigned char *oleState, void *errCallback) {
  return ExtractOle(ole, Sink{nullptr, out, options, oleState, errCallback});
}

}  // extern "C"
