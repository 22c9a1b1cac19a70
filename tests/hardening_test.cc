// Hostile input: failed allocations, truncated and corrupted documents.
// Every run must give a code of the result table, leave no output file
// where the result removes it and no temporary file; leaks are caught by
// LeakSanitizer in the sanitizer build.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <set>

#include "corpus.h"
#include "test_support.h"
#include "vtq_rt.h"

using kln::Bytes;

namespace {

const std::set<int> kResultCodes = {0, 12, 22, 25, 3000, 3003, 3004, 3005, 4001};

// Runs doc in both modes and checks the invariants of every outcome.
void CheckRun(const Bytes &doc, uint32_t flags, const std::string &what) {
  const FilterOptions opt = kln::Options("UTF-8", flags);
  const kln::Result file = kln::RunFile(doc, opt);
  EXPECT_TRUE(kResultCodes.count(file.code)) << what << " (file) gave " << file.code;
  if (file.code == 3003 || file.code == 3004 || file.code == 4001) {
    EXPECT_FALSE(file.outputExists) << what << " left its output behind";
  }
  const kln::Result stream = kln::RunStream(doc, opt);
  EXPECT_TRUE(kResultCodes.count(stream.code)) << what << " (stream) gave " << stream.code;
}

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

TEST(Hardening, EveryPrefixUpTo4KiB) {
  kln::ScopedTmpDir tmp;
  for (const kln::NamedDocument &d : kln::Corpus()) {
    const size_t end = d.bytes.size() < 4096 ? d.bytes.size() : 4096;
    for (size_t len = 0; len < end; ++len) {
      const Bytes prefix(d.bytes.begin(), d.bytes.begin() + static_cast<long>(len));
      CheckRun(prefix, d.flags, d.name + " cut at " + std::to_string(len));
    }
  }
  EXPECT_TRUE(tmp.leftovers().empty());
}

TEST(Hardening, SingleByteFlips) {
  kln::ScopedTmpDir tmp;
  for (const kln::NamedDocument &d : kln::Corpus()) {
    const size_t end = d.bytes.size() < 4096 ? d.bytes.size() : 4096;
    for (size_t at = 0; at < end; ++at) {
      for (uint8_t mask : {uint8_t(0xFF), uint8_t(0x80)}) {
        Bytes flipped = d.bytes;
        flipped[at] ^= mask;
        CheckRun(flipped, d.flags, d.name + " flipped at " + std::to_string(at));
      }
    }
  }
  EXPECT_TRUE(tmp.leftovers().empty());
}

}  // namespace
