#include "kovathumb/error.h"

#include <gtest/gtest.h>

#include <memory>

namespace kovathumb {
namespace {

TEST(ErrorTest, WhatTextKeepsCodeAndTrailingBlank) {
  EXPECT_STREQ(Error(602).what(), "(E602) ");
  EXPECT_EQ(Error(602).Code(), 602);
  EXPECT_STREQ(Error(601, "").what(), Error(601).what());
  EXPECT_STREQ(Error(601, "Can't stat /photos/a.jpg").what(), "(E601) Can't stat /photos/a.jpg");
  EXPECT_STREQ(Error(-1).what(), "(E-1) ");
}

TEST(ErrorTest, CopyOutlivesOriginalAndCatchesAsRuntimeError) {
  auto original = std::make_unique<Error>(603, "gone");
  Error copy(*original);
  original.reset();
  EXPECT_EQ(copy.Code(), 603);
  EXPECT_STREQ(copy.what(), "(E603) gone");
  try {
    throw Error(copy);
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "(E603) gone");
  }
}

}  // namespace
}  // namespace kovathumb
