// Failed allocations: every run must give a code of the result table;
// leaks are caught by LeakSanitizer in the sanitizer build. Truncated and
// corrupted documents are the replay driver's mutation mode (fuzz/).
#include <gtest/gtest.h>

#include "corpus.h"
#include "test_support.h"
#include "vtq_rt.h"

using kln::Bytes;

namespace {

// A failed allocation either ends the call with a code of the table or,
// answering 0, changes nothing: the text is the whole text.
TEST(Hardening, EveryAllocationFailureGivesATableCodeOrTheWholeText) {
  for (const kln::NamedDocument &d : kln::Corpus()) {
    const FilterOptions opt = kln::Options("UTF-8", d.flags);
    const kln::Result whole = kln::RunStream(d.bytes, opt);
    const bool ended = kln::SweepAllocationFailures(
        [&] { return kln::RunStream(d.bytes, opt); },
        [&](long n, const kln::Result &r) {
          EXPECT_TRUE(kln::IsResultCode(r.code)) << d.name << ": allocation " << n << " gave " << r.code;
          if (r.code == 0) {
            EXPECT_EQ(r.text, whole.text) << d.name << ": allocation " << n << " answered 0 with text lost";
          }
        });
    EXPECT_TRUE(ended) << d.name;
  }
}

}  // namespace
