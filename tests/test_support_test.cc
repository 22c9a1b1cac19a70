// The test folders themselves: nothing a test makes outlives it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "test_support.h"

TEST(TestSupport, TempDirGoesWithEverythingInIt) {
  std::string path;
  {
    kln::TempDir dir;
    path = dir.path();
    ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0700), 0);
    ASSERT_EQ(mkdir(dir.file("sub/deeper").c_str(), 0700), 0);
    kln::WriteFile(dir.file("sub/deeper/f"), kln::Bytes{1, 2, 3});
    kln::WriteFile(dir.file("g"), kln::Bytes{4});
  }
  struct stat st;
  EXPECT_NE(stat(path.c_str(), &st), 0) << path << " left behind";
}
