// A minimal host: writes a small document with the test builder and
// converts it to standard output through the stream entry point.
#include <cstdio>
#include <string>

#include "kln_builder.h"
#include "vtq_txkln.h"

int main(int argc, char **argv) {
  const std::string path = argc > 1 ? argv[1] : "kln_demo.kln";
  kln::Document doc;
  doc.header.title = "Demo";
  kln::WriteFile(path, doc.build());

  FilterOptions options{};
  std::snprintf(options.outCharset, sizeof options.outCharset, "UTF-8");
  KlnCharsetInfo charset{};
  charset.charsetCode = KLN_CHARSET_WINDOWS31J;
  VTQ_STREAM *out = VTQ_StreamCreateFile(stdout);
  const int code = GetTextStreamWithErrCallback(path.c_str(), out, &options, &charset, nullptr);
  VTQ_StreamDestroy(out);
  std::fprintf(stderr, "%s: result %d\n", path.c_str(), code);
  return code == KLN_OK || code == KLN_ERR_NO_TEXT ? 0 : 1;
}
