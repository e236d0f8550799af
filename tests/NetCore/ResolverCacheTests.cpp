#include "NetCore/ResolverCache.h"

#include <gtest/gtest.h>

using namespace tavrick;

TEST(ResolverCache, LifetimesEndExactlyAtTheirSeconds) {
    ResolverCache cache;
    cache.store(ResolverCache::Answer::named("one.example"), "1.1.1.1", 1000);
    cache.store(ResolverCache::Answer::none(), "2.2.2.2", 1000);
    EXPECT_EQ(cache.lookup("1.1.1.1", 1000 + 21599), ResolverCache::Answer::named("one.example"));
    EXPECT_EQ(cache.lookup("2.2.2.2", 1000 + 599), ResolverCache::Answer::none());
    EXPECT_FALSE(cache.lookup("2.2.2.2", 1000 + 600));
    EXPECT_FALSE(cache.lookup("1.1.1.1", 1000 + 21600));
    // An expired entry is removed when met.
    EXPECT_EQ(cache.count(), 0u);
}

TEST(ResolverCache, LabelIsTheLiveNameOrTheAddressAndStoringAgainReplacesBoth) {
    ResolverCache cache;
    cache.store(ResolverCache::Answer::named("one.example"), "1.1.1.1", 0);
    cache.store(ResolverCache::Answer::none(), "2.2.2.2", 0);
    EXPECT_EQ(cache.label("1.1.1.1", 10), "one.example");
    EXPECT_EQ(cache.label("2.2.2.2", 10), "2.2.2.2");
    EXPECT_EQ(cache.label("3.3.3.3", 10), "3.3.3.3");
    EXPECT_EQ(cache.label("1.1.1.1", 21600), "1.1.1.1");
    const auto entries = cache.count();
    cache.store(ResolverCache::Answer::named("two.example"), "2.2.2.2", 500);
    EXPECT_EQ(cache.count(), entries);
    EXPECT_EQ(cache.label("2.2.2.2", 5000), "two.example");
}

TEST(ResolverCache, NeedsLookupSkipsPrivateAndLiveAddresses) {
    ResolverCache cache;
    EXPECT_FALSE(cache.needsLookup("10.0.0.1", 0));
    EXPECT_FALSE(cache.needsLookup("::1", 0));
    EXPECT_TRUE(cache.needsLookup("8.8.8.8", 0));
    cache.store(ResolverCache::Answer::none(), "8.8.8.8", 0);
    EXPECT_FALSE(cache.needsLookup("8.8.8.8", 599));
    EXPECT_TRUE(cache.needsLookup("8.8.8.8", 600));
    EXPECT_EQ(cache.count(), 0u);
}

TEST(ResolverCache, TheEntryPastCapacityEvictsTheLeastRecentlyUsed) {
    ResolverCache cache;
    for (int i = 0; i < 4096; ++i) {
        cache.store(ResolverCache::Answer::named("n"), "5.5." + std::to_string(i / 256) + "." + std::to_string(i % 256), i);
    }
    // A lookup counts as use: the oldest entry is now the second one.
    EXPECT_TRUE(cache.lookup("5.5.0.0", 4100));
    cache.store(ResolverCache::Answer::named("n"), "6.6.6.6", 4101);
    EXPECT_EQ(cache.count(), 4096u);
    EXPECT_TRUE(cache.lookup("5.5.0.0", 4102));
    EXPECT_FALSE(cache.lookup("5.5.0.1", 4102));
    EXPECT_TRUE(cache.lookup("5.5.0.2", 4102));
    EXPECT_TRUE(cache.lookup("6.6.6.6", 4102));
}
