// Conversions on many threads at once answer exactly what they answer
// alone: the filter keeps no state between calls. Built on its own so
// that a ThreadSanitizer build compiles only this.
#include <gtest/gtest.h>

#include <thread>

#include "test_support.h"

TEST(Threads, EightAtOnceMatchOneAtATime) {
  const std::vector<kln::NamedDocument> corpus = kln::Corpus();
  std::vector<std::string> alone;
  for (const kln::NamedDocument &doc : corpus) alone.push_back(kln::Transcript(doc));

  constexpr int kThreads = 8;
  std::vector<std::vector<std::string>> together(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Each thread starts at another document, so that different kinds meet.
      together[t].resize(corpus.size());
      for (size_t i = 0; i < corpus.size(); ++i) {
        const size_t d = (i + size_t(t)) % corpus.size();
        together[t][d] = kln::Transcript(corpus[d]);
      }
    });
  }
  for (std::thread &t : threads) t.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(together[t], alone) << "thread " << t;
}
