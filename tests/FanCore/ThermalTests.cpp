#include "FanCore/Thermal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>

using namespace tavrick;

TEST(ThermalFilterTest, PlausibleRangeIsInclusive) {
    struct Row { double value; bool plausible; };
    for (auto row : std::vector<Row>{{4.9, false}, {5.0, true}, {130.0, true}, {130.1, false},
                                     {std::nan(""), false}, {INFINITY, false}, {-INFINITY, false}}) {
        EXPECT_EQ(ThermalFilter::isPlausible(row.value), row.plausible) << row.value;
    }
    auto summary = ThermalFilter::summarize({40, 200, 55, std::nan("")});
    EXPECT_EQ(summary.validCount, 2);
    EXPECT_EQ(summary.hottest, 55);
    EXPECT_FALSE(summary.isStale);
    EXPECT_FALSE(ThermalFilter::summarize({}).isUsable());
}

TEST(ThermalFilterTest, StaleExactlyAfterThirtySecondsOfIdenticalBits) {
    ThermalFilter filter;
    std::vector<double> values{50.0, 61.25};
    int firstStale = -1;
    for (int t = 0; t <= 31; ++t) {
        auto s = filter.assess(values, 100.0 + t);
        if (s.isStale && firstStale < 0) firstStale = t;
    }
    EXPECT_EQ(firstStale, 30);
    // One changed bit restarts the count.
    auto changed = std::nextafter(61.25, 100.0);
    EXPECT_FALSE(filter.assess({50.0, changed}, 132).isStale);
    EXPECT_FALSE(filter.assess({50.0, changed}, 161).isStale);
    EXPECT_TRUE(filter.assess({50.0, changed}, 162).isStale);
}

TEST(ThermalFilterTest, ReorderGapAndClockStepRestart) {
    ThermalFilter filter;
    filter.assess({50, 60}, 0);
    EXPECT_FALSE(filter.assess({60, 50}, 31).isStale);  // reordered: a change
    EXPECT_TRUE(filter.assess({60, 50}, 61).isStale);
    EXPECT_EQ(filter.assess({}, 62), ThermalSummary{});  // a gap clears everything
    EXPECT_FALSE(filter.assess({60, 50}, 63).isStale);
    EXPECT_FALSE(filter.assess({60, 50}, 92).isStale);
    EXPECT_FALSE(filter.assess({60, 50}, 10).isStale);  // the clock went back: start again
    EXPECT_FALSE(filter.assess({60, 50}, 39).isStale);
    auto stale = filter.assess({60, 50}, 40);
    EXPECT_TRUE(stale.isStale);
    EXPECT_EQ(stale.hottest, 60);  // a stale summary still reports
    EXPECT_EQ(stale.validCount, 2);
}

namespace {
class FakeSource : public DieSensorSource {
public:
    std::map<std::uint64_t, std::optional<double>> sensors;
    int enumerations = 0;
    std::map<std::uint64_t, std::optional<double>> afterReenumerate;
    std::vector<std::pair<std::uint64_t, std::string>> enumerate() override {
        ++enumerations;
        if (enumerations > 1 && !afterReenumerate.empty()) sensors = afterReenumerate;
        std::vector<std::pair<std::uint64_t, std::string>> out;
        for (auto& [id, v] : sensors) out.push_back({id, "PMU tdie" + std::to_string(id)});
        return out;
    }
    std::optional<double> read(std::uint64_t id) override {
        auto it = sensors.find(id);
        return it == sensors.end() ? std::nullopt : it->second;
    }
};
} // namespace

TEST(ThermalSensorsTest, ReadsInRegistryOrderAndRetriesOnceWhenEmpty) {
    FakeSource source;
    source.sensors = {{9, 40.0}, {3, 45.0}, {5, std::nullopt}};
    ThermalSensors sensors(source);
    auto read = sensors.read();
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read[0].registryID, 3u);
    EXPECT_EQ(read[1].registryID, 9u);
    EXPECT_EQ(source.enumerations, 1);
    // Across a sleep every service went; one fresh look finds the new ones.
    source.sensors = {{3, std::nullopt}, {9, std::nullopt}};
    source.afterReenumerate = {{11, 50.0}};
    read = sensors.read();
    ASSERT_EQ(read.size(), 1u);
    EXPECT_EQ(read[0].registryID, 11u);
    EXPECT_EQ(source.enumerations, 2);
    // Nothing at all: exactly one retry, not a loop.
    source.afterReenumerate = {{12, std::nullopt}};
    source.sensors = {{12, std::nullopt}};
    EXPECT_TRUE(sensors.read().empty());
    EXPECT_EQ(source.enumerations, 3);
}
