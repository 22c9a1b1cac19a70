// Running the filter from tests: documents go to a private temporary
// folder, the text comes back as bytes.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "alloc_hook.h"
#include "corpus.h"
#include "kln_builder.h"
#include "vtq_txkln.h"

struct ConvContext;

namespace kln {

// A present cell of the filter's cell table, as the reader tests compare them.
struct TableCell {
  int row, column, kind;
  double value;
  std::string text;
  bool operator==(const TableCell &) const = default;
};

// Options with the output set and flag bits named; everything else zero.
FilterOptions Options(const std::string &outCharset = "UTF-8", uint32_t flags = 0);
KlnCharsetInfo Charset(uint16_t code = KLN_CHARSET_WINDOWS31J);

struct Result {
  int code = -1;
  std::string text;         // what reached the stream / the output file
  bool outputExists = false;  // file mode: the output file is still there
};

// A folder of its own, removed with everything in it at destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + "/" + name; }
  // Names of the entries in the folder, sorted.
  std::vector<std::string> list() const;

 private:
  std::string path_;
};

// Points TMPDIR at a fresh folder for the life of the object.
class ScopedTmpDir {
 public:
  ScopedTmpDir() {
    const char *old = std::getenv("TMPDIR");
    if (old) old_ = old, hadOld_ = true;
    setenv("TMPDIR", dir_.path().c_str(), 1);
  }
  ~ScopedTmpDir() {
    if (hadOld_)
      setenv("TMPDIR", old_.c_str(), 1);
    else
      unsetenv("TMPDIR");
  }
  const std::string &path() const { return dir_.path(); }
  std::vector<std::string> leftovers() const { return dir_.list(); }

 private:
  TempDir dir_;
  std::string old_;
  bool hadOld_ = false;
};

// Converts doc in stream mode / file mode.
Result RunStream(const Bytes &doc, const FilterOptions &opt = Options(), const KlnCharsetInfo &cs = Charset());
Result RunFile(const Bytes &doc, const FilterOptions &opt = Options(), const KlnCharsetInfo &cs = Charset());

std::string ReadAll(const std::string &path);

// True for the codes a conversion may answer (0, 12, 22, 25, 3000, 3003,
// 3004, 3005, 4001).
bool IsResultCode(int code);

// Runs run() with its n-th allocation failing, for n = 1, 2, ... until a
// run makes fewer than n allocations, and hands each answer to
// check(n, answer). False when the runs did not end within 100,000.
template <class Run, class Check>
bool SweepAllocationFailures(Run run, Check check) {
  for (long n = 1;; ++n) {
    VTQ_SetAllocFailAt(n);
    const long before = VTQ_AllocCount();
    const auto answer = run();
    const bool reached = VTQ_AllocCount() - before >= n;
    VTQ_SetAllocFailAt(0);
    if (!reached) return true;
    if (n >= 100000) return false;
    check(n, answer);
  }
}

// Everything the filter answers for doc, read with its own option bits:
// the code and text of stream and file mode, the code and the six strings
// of GetProperty. Equal transcripts mean equal behaviour.
std::string Transcript(const NamedDocument &doc);

// A context of the filter opened on a document, for driving its stages
// one by one. Output goes to `text` (stream mode).
class OpenedContext {
 public:
  explicit OpenedContext(const Bytes &doc, const FilterOptions &opt = Options(),
                         const KlnCharsetInfo &cs = Charset());
  ~OpenedContext();
  OpenedContext(const OpenedContext &) = delete;
  OpenedContext &operator=(const OpenedContext &) = delete;
  ::ConvContext *operator->() const { return ctx_; }
  ::ConvContext *get() const { return ctx_; }
  // The next n bytes of the input (fewer at its end).
  Bytes next(size_t n);
  // The header walk, then the data-set walk when the header is read.
  int walk();
  // The present cells of the cell table, column by column in chain order.
  std::vector<TableCell> cells() const;
  std::string text;
  FilterOptions options;
  KlnCharsetInfo charset;

 private:
  TempDir dir_;
  ::ConvContext *ctx_ = nullptr;
  VTQ_STREAM *stream_ = nullptr;
};

}  // namespace kln
