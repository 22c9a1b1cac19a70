#include <gtest/gtest.h>

#include "test_support.h"

TEST(Smoke, BuilderMakesHeader) { EXPECT_GT(kln::Header().build().size(), 344u); }
