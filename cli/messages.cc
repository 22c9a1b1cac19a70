// One text per outcome, the result codes they come from and the exit
// status each one gives.
#include <cstdio>
#include <cstring>

#include "kln2txt.h"

namespace kln2txt {

namespace {

struct OutcomeInfo {
  Outcome outcome;
  const char *text;
  int exitStatus;
};

using enum Outcome;
constexpr OutcomeInfo kOutcomes[kOutcomeCount] = {
    {kConverted, "converted", kExitOk},
    {kEmpty, "no text in document", kExitOk},
    {kCut, "output cut at the size limit", kExitCut},
    {kNotKln, "not a KLN document", kExitFailed},
    {kDamaged, "damaged document: its contents cannot be read", kExitFailed},
    {kNotConvertible, "text cannot be converted to the output character set", kExitFailed},
    {kNoMemory, "out of memory", kExitFailed},
    {kCannotOpen, "cannot open the input, the output or the log", kExitFailed},
    {kTextBlock, "a text block could not be read", kExitFailed},
    {kOleRefused, "refused: the document holds an embedded object (--ole refuse)", kExitFailed},
    {kOleFailed, "an embedded object could not be converted (--ole-strict)", kExitFailed},
    {kInputFailed, "cannot open the input", kExitFailed},
    {kOutputFailed, "cannot open the output", kExitFailed},
    {kLogFailed, "cannot open the log", kExitFailed},
    {kWriteFailed, "cannot write", kExitFailed},
    {kOutputIsInput, "the output is the input", kExitFailed},
    {kUnknownCode, "unexpected result code", kExitFailed},
    {kCrashed, "crashed", kExitFailed},
    {kTimedOut, "timed out", kExitFailed},
    {kWorkerLost, "worker ended unexpectedly", kExitFailed},
    {kInterrupted, "interrupted", kExitFailed},
};

// The table is indexed by Outcome.
constexpr bool InOrder() {
  for (int i = 0; i < kOutcomeCount; ++i)
    if (static_cast<int>(kOutcomes[i].outcome) != i) return false;
  return true;
}
static_assert(InOrder(), "kOutcomes follows the order of Outcome");

// Exit statuses from the least to the most serious.
constexpr int kSeverity[] = {kExitOk, kExitCut, kExitFailed, kExitUsage};

int SeverityRank(int status) {
  for (int i = 0; i < 4; ++i)
    if (kSeverity[i] == status) return i;
  return 4;
}

}  // namespace

Outcome OutcomeOf(int code) {
  switch (code) {
    case KLN_OK: return Outcome::kConverted;
    case KLN_ERR_NO_TEXT: return Outcome::kEmpty;
    case KLN_ERR_SIZE_LIMIT: return Outcome::kCut;
    case KLN_ERR_FORMAT: return Outcome::kDamaged;
    case KLN_ERR_NOMEM: return Outcome::kNoMemory;
    case KLN_ERR_OPEN: return Outcome::kCannotOpen;
    case KLN_ERR_TEXT_BLOCK: return Outcome::kTextBlock;
    case KLN_ERR_OLE_REFUSED: return Outcome::kOleRefused;
    case KLN_ERR_OLE_FAILED: return Outcome::kOleFailed;
    default: return Outcome::kUnknownCode;
  }
}

const char *OutcomeText(Outcome outcome) { return kOutcomes[static_cast<int>(outcome)].text; }

int ExitStatusOf(Outcome outcome) { return kOutcomes[static_cast<int>(outcome)].exitStatus; }

int GravestStatus(int a, int b) { return SeverityRank(a) >= SeverityRank(b) ? a : b; }

std::string DetailOf(Outcome outcome, int code, const Settings &settings) {
  switch (outcome) {
    case kUnknownCode: return "result " + std::to_string(code);
    case kNotConvertible: return settings.filter.outCharset;
    case kCut: return std::to_string(settings.filter.sizeLimit) + " bytes";
    default: return {};
  }
}

void Report(const std::string &file, Outcome outcome, const std::string &detail) {
  if (outcome == Outcome::kConverted) return;
  std::fprintf(stderr, "kln2txt: %s: %s%s%s%s\n", file.c_str(), OutcomeText(outcome), detail.empty() ? "" : " (",
               detail.c_str(), detail.empty() ? "" : ")");
}

void Report(const std::string &file, const Result &r, const Settings &settings) {
  if (r.path.empty()) return Report(file, r.outcome, DetailOf(r.outcome, r.code, settings));
  std::fprintf(stderr, "kln2txt: %s: %s%s%s\n", r.path.c_str(), OutcomeText(r.outcome), r.error ? ": " : "",
               r.error ? std::strerror(r.error) : "");
}

void Warn(const std::string &file, const char *text) { std::fprintf(stderr, "kln2txt: %s: %s\n", file.c_str(), text); }

}  // namespace kln2txt
