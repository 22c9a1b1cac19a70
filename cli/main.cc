// kln2txt: KLN documents to text. See --help, and the README for examples.
#include "kln2txt.h"

namespace {

using namespace kln2txt;

// Every FILE to standard output, or the one FILE into -o; several files to
// standard output are introduced by "==> FILE <==" lines, as head(1) does.
int ConvertInProcess(const Settings &s) {
  int status = kExitOk;
  const bool headings = s.files.size() > 1 && s.output.empty() && !s.json;
  for (size_t i = 0; i < s.files.size(); ++i) {
    const std::string &file = s.files[i];
    if (headings) std::printf("%s==> %s <==\n", i ? "\n" : "", file.c_str());
    int code = 0;
    const Outcome outcome = ConvertDocument(s, file, s.output, code);
    Report(file, outcome, DetailOf(outcome, code, s));
    status = GravestStatus(status, ExitStatusOf(outcome));
  }
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  Settings settings;
  bool done = false;
  const int status = ParseCommandLine(argc, argv, settings, done);
  if (status != kExitOk || done) return status;
  if (settings.serve) return RunServe(settings);
  return settings.outDir.empty() ? ConvertInProcess(settings) : RunBatch(settings);
}
