#include <gtest/gtest.h>
#include <libpki/util.h>

#include <cstdlib>
#include <string>

#include "fakes/allocator.h"

namespace {

TEST(UtilStrdup, NullIsNull) {
  EXPECT_EQ(pki_strdup(nullptr), nullptr);
}

TEST(UtilStrdup, CopiesTheText) {
  char text[] = "label";
  char *copy = pki_strdup(text);
  text[0] = 'x';
  EXPECT_STREQ(copy, "label");
  free(copy);
}

TEST(UtilStrdup, EmptyTextIsAnEmptyCopy) {
  char *copy = pki_strdup("");
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "");
  free(copy);
}

TEST(UtilStrdup, CopiesALongText) {
  std::string text(100000, 'x');
  char *copy = pki_strdup(text.c_str());
  EXPECT_EQ(copy, text);
  free(copy);
}

TEST(UtilStrdup, OutOfMemoryIsNull) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  for (const char *text : {"", "label"}) {
    fake_allocator::fail_at(1);
    char *copy = pki_strdup(text);
    fake_allocator::stop_failing();
    EXPECT_EQ(copy, nullptr);
    free(copy);
  }
}

}  // namespace
