/* A tiny host program built against the installed package: prints the
 * title and the text of the document named by its argument, collected in
 * a buffer stream. */
#include <stdio.h>
#include <string.h>

#include <vtq_rt.h> /* installed for hosts that bring a runtime of their own */
#include <vtq_stream.h>
#include <vtq_txkln.h>
#include <vtq_txkln_ext.h>

int main(int argc, char **argv) {
  static char record[KLN_PROPERTY_RECORD_SIZE];
  FilterOptions options;
  KlnCharsetInfo charset;
  VTQ_STREAM *stream;
  const void *text;
  size_t length;
  int code;
  if (argc != 2) return 2;
  memset(&options, 0, sizeof options);
  memset(&charset, 0, sizeof charset);
  strcpy(options.outCharset, "UTF-8");
  options.flags = KLN_FLAG_LINE_LF;
  charset.charsetCode = KLN_CHARSET_WINDOWS31J;

  code = GetProperty(argv[1], &options, record, &charset);
  if (code != KLN_OK) return 1;
  printf("title: %s\n", record + KLN_PROP_TITLE);
  stream = VTQ_StreamCreateBuffer();
  code = GetTextStreamWithErrCallback(argv[1], stream, &options, &charset, NULL);
  text = VTQ_StreamBufferData(stream, &length);
  if (length) fwrite(text, 1, length, stdout);
  VTQ_StreamDestroy(stream);
  if (KLN_EXT_VERSION < 1) return 1;
  return code == KLN_OK ? 0 : 1;
}
