#include <gtest/gtest.h>

#include <cstdlib>

#include "common/alloc.h"
#include "fakes/allocator.h"

namespace {

struct plain {
  int number;
  void *pointer;
};

TEST(UtilAlloc, NoOctetsAreNotNull) {
  void *memory = pki::allocate(0);
  EXPECT_NE(memory, nullptr);
  free(memory);
}

TEST(UtilAlloc, StructuresAreZeroed) {
  pki::malloc_ptr<plain> made(pki::make<plain>());
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->number, 0);
  EXPECT_EQ(made->pointer, nullptr);
}

TEST(UtilAlloc, OutOfMemoryIsNull) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  fake_allocator::fail_at(1, true);
  void *memory = pki::allocate(10);
  plain *made = pki::make<plain>();
  fake_allocator::stop_failing();
  EXPECT_EQ(memory, nullptr);
  EXPECT_EQ(made, nullptr);
  free(memory);
  free(made);
}

}  // namespace
