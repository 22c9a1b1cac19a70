#include "test_support.h"

#include "klnfile.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace kln {

FilterOptions Options(const std::string &outCharset, uint32_t flags) {
  FilterOptions o;
  std::memset(&o, 0, sizeof o);
  std::snprintf(o.outCharset, sizeof o.outCharset, "%s", outCharset.c_str());
  o.flags = flags;
  return o;
}

KlnCharsetInfo Charset(uint16_t code) {
  KlnCharsetInfo c;
  std::memset(&c, 0, sizeof c);
  c.charsetCode = code;
  return c;
}

TempDir::TempDir() {
  const char *base = std::getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/kln_test_XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
  path_ = buf.data();
}

TempDir::~TempDir() {
  std::error_code ignored;  // a destructor has no one to tell
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> TempDir::list() const {
  std::vector<std::string> names;
  if (DIR *d = opendir(path_.c_str())) {
    while (dirent *e = readdir(d)) {
      if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string ReadAll(const std::string &path) {
  std::string s;
  if (FILE *f = std::fopen(path.c_str(), "rb")) {
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
    std::fclose(f);
  }
  return s;
}

bool IsResultCode(int code) {
  for (int c : {KLN_OK, KLN_ERR_NOMEM, KLN_ERR_OPEN, KLN_ERR_TEXT_BLOCK, KLN_ERR_FORMAT, KLN_ERR_NO_TEXT,
                KLN_ERR_OLE_REFUSED, KLN_ERR_SIZE_LIMIT, KLN_ERR_OLE_FAILED})
    if (code == c) return true;
  return false;
}

namespace {
long Collect(void *user, const void *data, long len) {
  static_cast<std::string *>(user)->append(static_cast<const char *>(data), static_cast<size_t>(len));
  return len;
}
}  // namespace

Result RunStream(const Bytes &doc, const FilterOptions &opt, const KlnCharsetInfo &cs) {
  TempDir dir;
  std::string in = dir.file("in.kln");
  WriteFile(in, doc);
  Result r;
  VTQ_STREAM *s = VTQ_StreamCreate(Collect, &r.text);
  r.code = GetTextStreamWithErrCallback(in.c_str(), s, &opt, &cs, nullptr);
  VTQ_StreamDestroy(s);
  return r;
}

Result RunFile(const Bytes &doc, const FilterOptions &opt, const KlnCharsetInfo &cs) {
  TempDir dir;
  std::string in = dir.file("in.kln"), out = dir.file("out.txt");
  WriteFile(in, doc);
  Result r;
  r.code = GetTextWithErrCallback(in.c_str(), out.c_str(), &opt, &cs, nullptr);
  struct stat st;
  r.outputExists = stat(out.c_str(), &st) == 0;
  r.text = ReadAll(out);
  return r;
}

std::string Transcript(const NamedDocument &doc) {
  const FilterOptions opt = Options("UTF-8", doc.flags);
  const Result stream = RunStream(doc.bytes, opt), file = RunFile(doc.bytes, opt);
  std::string t = doc.name + "\nstream " + std::to_string(stream.code) + "\n" + stream.text + "\nfile " +
                  std::to_string(file.code) + "\n" + file.text + "\nproperties ";
  TempDir dir;
  const std::string path = dir.file("p.kln");
  WriteFile(path, doc.bytes);
  const KlnCharsetInfo cs = Charset();
  std::vector<char> record(KLN_PROPERTY_RECORD_SIZE);
  t += std::to_string(GetProperty(path.c_str(), &opt, record.data(), &cs));
  for (size_t at : {KLN_PROP_TITLE, KLN_PROP_AUTHOR, KLN_PROP_KEYWORDS, KLN_PROP_DESCRIPTION, KLN_PROP_CLASS,
                    KLN_PROP_VERSION})
    t += "\n" + std::string(record.data() + at);
  return t + "\n";
}

}  // namespace kln

namespace kln {

OpenedContext::OpenedContext(const Bytes &doc, const FilterOptions &opt, const KlnCharsetInfo &cs)
    : options(opt), charset(cs) {
  std::string in = dir_.file("in.kln");
  WriteFile(in, doc);
  if (initial(&ctx_) != 0) throw std::runtime_error("initial failed");
  std::snprintf(ctx_->inPath, sizeof ctx_->inPath, "%s", in.c_str());
  ctx_->options = &options;
  ctx_->charsetInfo = &charset;
  ctx_->inFile = VTQ_FileOpen(in.c_str(), "rb");
  stream_ = VTQ_StreamCreate(Collect, &text);
  ctx_->streamMode = 1;
  ctx_->outStream = stream_;
}

OpenedContext::~OpenedContext() {
  if (ctx_->inFile) VTQ_FileClose(ctx_->inFile);
  closeall(ctx_);
  VTQ_StreamDestroy(stream_);
}

int OpenedContext::walk() {
  const int r = GetGlobalInfo(ctx_);
  return r == 0 ? GetDSetInfo(ctx_) : r;
}

std::vector<TableCell> OpenedContext::cells() const {
  std::vector<TableCell> out;
  for (uint32_t k = 0; k < ctx_->columnHeadCount; ++k) {
    for (const CellNode *n = ctx_->columnHeads[k]; n; n = NextInColumn(ctx_, n)) {
      if (!n->present) continue;
      const bool text = CellHoldsText(n->kind);
      out.push_back({n->row, n->column, n->kind, text ? 0 : n->value, text && n->text ? n->text : ""});
    }
  }
  return out;
}

Bytes OpenedContext::next(size_t n) {
  Bytes b(n);
  b.resize(VTQ_FileRead(b.data(), 1, n, ctx_->inFile));
  return b;
}

}  // namespace kln
