// A minimal host: writes two sample documents with the document builder (a
// Japanese-and-English letter and a budget sheet) and converts each to
// standard output through the stream entry point.
#include <cstdio>
#include <string>

#include "corpus.h"
#include "vtq_txkln.h"

int main(int argc, char **argv) {
  const std::string dir = argc > 1 ? argv[1] : ".";
  FilterOptions options{};
  std::snprintf(options.outCharset, sizeof options.outCharset, "UTF-8");
  options.flags = KLN_FLAG_LINE_LF;
  KlnCharsetInfo charset{};
  charset.charsetCode = KLN_CHARSET_WINDOWS31J;
  int failures = 0;
  for (const kln::NamedDocument &d : kln::Corpus()) {
    if (d.name != "letter" && d.name != "budget") continue;
    const std::string path = dir + "/" + d.name + ".kln";
    kln::WriteFile(path, d.bytes);
    std::printf("==== %s\n", path.c_str());
    std::fflush(stdout);
    VTQ_STREAM *out = VTQ_StreamCreateFile(stdout);
    const int code = GetTextStreamWithErrCallback(path.c_str(), out, &options, &charset, nullptr);
    VTQ_StreamDestroy(out);
    std::printf("\n==== result %d\n", code);
    failures += code != KLN_OK;
  }
  return failures ? 1 : 0;
}
