#include "MonitorKit/ByteFormat.h"
#include "MonitorKit/ProcessFootprint.h"

#include <gtest/gtest.h>

#include <vector>

using namespace tavrick;

TEST(ByteFormat, CompactFiguresAcrossUnitBoundaries) {
    const std::pair<std::uint64_t, const char*> cases[] = {
        {0, "0 bytes"}, {1, "1 byte"}, {1023, "1023 bytes"}, {1024, "1.0 KB"}, {1536, "1.5 KB"},
        {99 * 1024 + 1000, "100 KB"},  // 99.98 rounds to 100, shown without a decimal
        {1024 * 1024 - 1, "1.0 MB"},   // would show as 1024 KB
        {12'900'000, "12.3 MB"}, {3ull * 1024 * 1024 * 1024, "3.0 GB"},
    };
    for (auto [bytes, text] : cases) EXPECT_EQ(ByteFormat::compact(bytes), text) << bytes;
}

TEST(ByteFormat, PercentClampsAndRounds) {
    const std::pair<double, const char*> cases[] = {{0.423, "42%"}, {0.995, "100%"}, {-0.2, "0%"}, {7.0, "100%"}};
    for (auto [fraction, text] : cases) EXPECT_EQ(ByteFormat::percent(fraction), text) << fraction;
}

TEST(ProcessFootprint, AnonymousResidentPlusSwapFromStatus) {
    const char* status =
        "Name:\ttavrick\nVmRSS:\t   20000 kB\nRssAnon:\t    8000 kB\nRssFile:\t   12000 kB\nVmSwap:\t     100 kB\n";
    EXPECT_EQ(ProcessFootprint::fromStatus(status), std::optional<std::uint64_t>(8100ull * 1024));
    EXPECT_EQ(ProcessFootprint::fromStatus("Name:\tx\nRssAnon:\t 5 kB\n"), std::optional<std::uint64_t>(5 * 1024));
    EXPECT_EQ(ProcessFootprint::fromStatus("Name:\tx\n"), std::nullopt);
    EXPECT_EQ(ProcessFootprint::fromStatus("RssAnon:\tlots\n"), std::nullopt);
}

TEST(ProcessFootprint, TheProcessesOwnFootprintGrowsWithWhatItWrites) {
    auto before = ProcessFootprint::current();
    ASSERT_TRUE(before.has_value());
    std::vector<char> block(64u << 20, 1);  // written, so resident
    auto after = ProcessFootprint::current();
    ASSERT_TRUE(after.has_value());
    EXPECT_GE(*after, *before + (48u << 20)) << "in bytes, and counting anonymous memory";
    EXPECT_EQ(block[block.size() / 2], 1);
}
