// One text per outcome, the result codes they come from and the exit
// status each one gives.
#include <cstdio>

#include "kln2txt.h"

namespace kln2txt {

namespace {

struct OutcomeInfo {
  const char *text;
  int exitStatus;
};

// Indexed by Outcome.
constexpr OutcomeInfo kOutcomes[kOutcomeCount] = {
    {"converted", kExitOk},
    {"no text in document", kExitOk},
    {"output cut at the size limit", kExitCut},
    {"not a KLN document", kExitFailed},
    {"damaged document, or text that cannot be converted to the output character set", kExitFailed},
    {"out of memory", kExitFailed},
    {"cannot open the input, the output or the log", kExitFailed},
    {"a text block could not be read", kExitFailed},
    {"refused: the document holds an embedded object (--ole refuse)", kExitFailed},
    {"an embedded object could not be converted (--ole-continue goes on without it)", kExitFailed},
    {"path too long (at most 259 bytes)", kExitFailed},
    {"unexpected result code", kExitFailed},
    {"crashed", kExitFailed},
    {"timed out", kExitFailed},
    {"worker ended unexpectedly", kExitFailed},
};

// Exit statuses from the least to the most serious.
constexpr int kSeverity[] = {kExitOk, kExitCut, kExitFailed, kExitUsage};

int SeverityRank(int status) {
  for (int i = 0; i < 4; ++i)
    if (kSeverity[i] == status) return i;
  return 4;
}

}  // namespace

Outcome OutcomeOf(int code, bool headerReadable) {
  switch (code) {
    case KLN_OK: return Outcome::kConverted;
    case KLN_ERR_NO_TEXT: return Outcome::kEmpty;
    case KLN_ERR_SIZE_LIMIT: return Outcome::kCut;
    case KLN_ERR_FORMAT: return headerReadable ? Outcome::kDamaged : Outcome::kNotKln;
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

void Report(const std::string &file, Outcome outcome, const std::string &detail) {
  if (outcome == Outcome::kConverted) return;
  std::fprintf(stderr, "kln2txt: %s: %s%s%s%s\n", file.c_str(), OutcomeText(outcome), detail.empty() ? "" : " (",
               detail.c_str(), detail.empty() ? "" : ")");
}

}  // namespace kln2txt
