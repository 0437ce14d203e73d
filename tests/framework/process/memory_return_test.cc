#include "framework/process/memory_return.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace zem {
namespace {

// Small pieces that are free but lie below one that is not: the allocator alone keeps their pages.
TEST(MemoryReturnTest, FreePiecesGoBackOnce) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the allocator is not the product's";
#endif
  MemoryReturn memory;
  memory.GiveBack();
  std::vector<std::unique_ptr<char[]>> pieces;
  for (size_t i = 0; i < 4 * MemoryReturn::kLeast / 1000; ++i) {
    pieces.push_back(std::make_unique<char[]>(1000));
  }
  EXPECT_FALSE(memory.GiveBack()) << "nothing is free";
  pieces.erase(pieces.begin(), pieces.end() - 1);
  EXPECT_TRUE(memory.GiveBack());
  EXPECT_FALSE(memory.GiveBack()) << "it has gone back already";
}

}  // namespace
}  // namespace zem
