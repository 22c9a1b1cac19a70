// Failed allocations: every run must give a code of the result table;
// leaks are caught by LeakSanitizer in the sanitizer build. Truncated and
// corrupted documents are the replay driver's mutation mode (fuzz/).
#include <gtest/gtest.h>

#include <set>

#include "corpus.h"
#include "test_support.h"
#include "vtq_rt.h"

using kln::Bytes;

namespace {

const std::set<int> kResultCodes = {0, 12, 22, 25, 3000, 3003, 3004, 3005, 4001};

// A failed allocation either ends the call with a code of the table or,
// answering 0, changes nothing: the text is the whole text.
TEST(Hardening, EveryAllocationFailureGivesATableCodeOrTheWholeText) {
  for (const kln::NamedDocument &d : kln::Corpus()) {
    const FilterOptions opt = kln::Options("UTF-8", d.flags);
    const kln::Result whole = kln::RunStream(d.bytes, opt);
    for (long n = 1;; ++n) {
      VTQ_SetAllocFailAt(n);
      const long before = VTQ_AllocCount();
      const kln::Result r = kln::RunStream(d.bytes, opt);
      const bool reached = VTQ_AllocCount() - before >= n;
      VTQ_SetAllocFailAt(0);
      if (!reached) break;
      EXPECT_TRUE(kResultCodes.count(r.code)) << d.name << ": allocation " << n << " gave " << r.code;
      if (r.code == 0) {
        EXPECT_EQ(r.text, whole.text) << d.name << ": allocation " << n << " answered 0 with text lost";
      }
      ASSERT_LT(n, 100000) << d.name;
    }
  }
}

}  // namespace
