// The mount's part cache: bounded by bytes, least recently used out first.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "CloudMount/YPartCache.h"

namespace {

CloudMount::YPartCache::Bytes Part(size_t size, char fill) { return std::make_shared<const std::string>(size, fill); }

TEST(MountPartCache, KeepsWithinItsLimitDroppingTheLeastRecentlyUsed) {
  CloudMount::YPartCache cache(300);
  cache.Put("a", Part(100, 'a'));
  cache.Put("b", Part(100, 'b'));
  cache.Put("c", Part(100, 'c'));
  ASSERT_NE(cache.Find("a"), nullptr);  // "a" is now the most recently used
  cache.Put("d", Part(100, 'd'));       // "b" goes
  EXPECT_EQ(cache.Find("b"), nullptr);
  EXPECT_EQ(*cache.Find("a"), std::string(100, 'a'));
  EXPECT_NE(cache.Find("c"), nullptr);
  EXPECT_NE(cache.Find("d"), nullptr);

  cache.Put("huge", Part(301, 'h'));  // larger than the whole cache: not kept, nothing evicted
  EXPECT_EQ(cache.Find("huge"), nullptr);
  cache.Put("a", Part(100, 'x'));  // the same fingerprint is the same bytes: kept once
  const CloudMount::CacheStats stats = cache.GetStats();
  EXPECT_EQ(stats.size, 300u);
  EXPECT_EQ(stats.count, 3u);
  EXPECT_EQ(stats.hits, 4u);
  EXPECT_EQ(stats.misses, 2u);
  EXPECT_EQ(*cache.Find("a"), std::string(100, 'a'));
}

}  // namespace
