#include <gmock/gmock.h>

#include <cerrno>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/base/locks.h"
#include "app/ctxteng/base/lru_cache.h"
#include "platform/hash/jhash.h"
#include "tests/support/log_capture.h"

namespace Ctxt {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

// A base that writes its own name, or a detail that is lost on the way down, would make the operator look in
// the wrong place.
TEST(CtxtExceptionTest, MessageNamesClassThreadAndDetail) {
  EXPECT_THAT(CtxtException("lost").what(), MatchesRegex("Ctxt::CtxtException@tid=[0-9]+: lost"));
  EXPECT_THAT(
      CtxtInvalidParameterError("listenPort", "Need a valid listenPort").what(),
      MatchesRegex("Ctxt::CtxtInvalidParameterError@tid=[0-9]+: listenPort: Need a valid listenPort"));
  EXPECT_THAT(EndvatApiError("EndvatLibInit", 15, "ENDVAT_ERROR_INVALID_CONFIG").what(),
              HasSubstr(": EndvatLibInit failed. Error: 15 (ENDVAT_ERROR_INVALID_CONFIG)"));
  EXPECT_THAT(CtxtMemoryAllocationError("ClientInfo", 48).what(), HasSubstr(": ClientInfo size: 48"));
  EXPECT_STREQ(Locks::LockException(EDEADLK).what(), "LockException: Resource deadlock avoided");
}

// A mutex that a thread can lock twice hides the deadlock until it meets another thread.
TEST(LocksTest, MutexRefusesItsOwnerAndLogsABadRelease) {
  Locks::Mutex mutex;
  zem::test::LogCapture log;
  {
    const Locks::ScopedLock lock(mutex);
    EXPECT_THROW(mutex.Lock(), Locks::LockException);
    EXPECT_EQ(mutex.Unlock(), 0);
  }
  EXPECT_EQ(log.Count("errorCode=\"CTX36\""), 1u);
  EXPECT_EQ(log.Count("errorCode=\"MPACTX36\""), 1u);
  EXPECT_EQ(log.Count("Ctxt: Failed to mutex unlock, "), 2u);
}

// The wrong victim at the bound, or a replaced key that keeps its old place, loses users that are at work.
TEST(LruCacheTest, DropsTheKeyThatWasNotUsedForLongest) {
  LRUCache<unsigned, int> cache(2);
  cache.Put(1, 10);
  cache.Put(2, 20);
  EXPECT_EQ(cache.Get(1), 10);
  cache.Put(3, 30);
  EXPECT_EQ(cache.Get(2), std::nullopt);
  cache.Put(1, 11);
  cache.Put(4, 40);
  EXPECT_EQ(cache.Get(3), std::nullopt);
  EXPECT_EQ(cache.Get(1), 11);
  EXPECT_TRUE(cache.Remove(1));
  EXPECT_FALSE(cache.Remove(1));
  cache.Put(5, 50);
  EXPECT_EQ(cache.Get(4), 40);
  cache.Clear();
  EXPECT_EQ(cache.size(), 0u);

  LRUCache<unsigned, int> smallest(0);
  smallest.Put(1, 1);
  smallest.Put(2, 2);
  EXPECT_EQ(smallest.size(), 1u);
}

// The published values of the hash: the firewall's side computes the same ones.
TEST(JhashTest, GivesThePublishedValues) {
  const std::string_view text = "Four score and seven years ago";
  EXPECT_EQ(zem::jhash32(""), 0xdeadbeefu);
  EXPECT_EQ(zem::jhash32("", 0xdeadbeef), 0xbd5b7ddeu);
  EXPECT_EQ(zem::jhash32(text), 0x17770551u);
  EXPECT_EQ(zem::jhash32(text, 1), 0xcd628161u);
  EXPECT_EQ(zem::jhash64(text), 0xce7226e617770551u);
  EXPECT_EQ(zem::jhash64(text, 1ull << 32), 0xbd371de4e3607caeu);
  EXPECT_EQ(zem::jhash64(text, 1), 0x6cbea4b3cd628161u);
}

}  // namespace
}  // namespace Ctxt
