#include "AwakeKit/LidJournal.h"
#include "AwakeKit/LidWatcher.h"
#include "CoreKit/ManualScheduler.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tavrick;

namespace {

class LidTest : public ::testing::Test {
protected:
    std::unique_ptr<LidWatcher> make() {
        auto watcher = std::make_unique<LidWatcher>(journal, [this] { return readings; }, scheduler, workspace);
        watcher->onChange = [this] { ++changes; };
        watcher->start();
        return watcher;
    }

    void close() { readings.lidClosed = true; }
    void open() { readings.lidClosed = false; }

    // The machine sleeps for `seconds`: wall time moves, the monotonic clock and the timers do not.
    void sleepFor(double seconds) { scheduler.manualClock().setWall(scheduler.clock().now() + seconds); }

    std::optional<LidOutcome> outcome(PowerSource source) {
        auto observation = journal.observation(source);
        return observation ? std::optional(observation->outcome) : std::nullopt;
    }

    ManualScheduler scheduler;
    WorkspaceNotifications workspace{scheduler};
    InMemoryPreferenceStore defaults;
    LidJournal journal{defaults};
    LidReadings readings{true, 0, {}, false};
    int changes = 0;
};

} // namespace

TEST(LidConditions, ReadAppliesTheRulesForWhatCouldNotBeRead) {
    LidReadings readings;
    readings.externalDisplays = 2;
    readings.externalInputNames = {"Keychron K2", std::nullopt, "Keychron K2", std::string(), "MX Master"};
    auto conditions = LidConditions::read([&] { return readings; });
    EXPECT_TRUE(conditions.isOnPowerAdapter);  // unknown source: a desktop
    EXPECT_EQ(conditions.externalInputDevices,
              (std::vector<std::string>{"Keychron K2", "an external device", "MX Master"}));
    EXPECT_TRUE(conditions.meetsDisplayAndInputRequirements());
    readings.onPowerAdapter = false;
    EXPECT_FALSE(LidConditions::read([&] { return readings; }).isOnPowerAdapter);
    EXPECT_EQ(LidConditions::read(nullptr), LidConditions{});
}

TEST(LidJournal, KeepsOneObservationPerSourceAndSurvivesGarbage) {
    InMemoryPreferenceStore defaults;
    LidJournal journal(defaults);
    EXPECT_EQ(journal.observation(PowerSource::battery), std::nullopt);
    journal.record(LidOutcome::slept, PowerSource::battery, 100);
    journal.record(LidOutcome::keptRunning, PowerSource::battery, 200);
    journal.record(LidOutcome::slept, PowerSource::powerAdapter, 300);
    EXPECT_EQ(journal.observation(PowerSource::battery), (LidObservation{LidOutcome::keptRunning, 200}));
    EXPECT_EQ(journal.observation(PowerSource::powerAdapter), (LidObservation{LidOutcome::slept, 300}));
    auto stored = defaults.object(LidJournal::key);
    ASSERT_TRUE(stored && stored->asData());
    auto json = nlohmann::json::parse(stored->asData()->begin(), stored->asData()->end());
    EXPECT_EQ(json, nlohmann::json::parse(R"({"battery":{"date":200,"outcome":"keptRunning"},
                                              "powerAdapter":{"date":300,"outcome":"slept"}})"));

    for (auto garbage : {PreferenceValue(42), PreferenceValue::data("not json"), PreferenceValue::data("[1,2]"),
                         PreferenceValue::data(R"({"battery":{"outcome":"napped","date":1}})")}) {
        defaults.set(LidJournal::key, garbage);
        EXPECT_EQ(journal.observation(PowerSource::battery), std::nullopt) << garbage.summary();
    }
    // Recording over garbage starts a fresh journal.
    journal.record(LidOutcome::slept, PowerSource::battery, 5);
    EXPECT_EQ(journal.observation(PowerSource::battery), (LidObservation{LidOutcome::slept, 5}));
}

TEST(LidVerdict, ObservationsBeatRulesAndRulesSayWhatIsMissing) {
    const LocalCalendar utc{"UTC", "en_US"};
    const double now = 1763301900;  // 2025-11-16 14:05 UTC
    const LidConditions none, ready{true, 1, {"Keyboard"}, false}, displayOnly{true, 1, {}, false},
        inputOnly{true, 0, {"Mouse"}, false};

    struct Case {
        PowerSource source;
        std::optional<LidObservation> observation;
        LidConditions conditions;
        std::string summary, detail;
        bool observed;
    };
    const std::vector<Case> cases = {
        {PowerSource::battery, LidObservation{LidOutcome::slept, now - 3600}, ready, "Goes to sleep",
         "Seen today: the lid was closed on battery and this Mac went to sleep.", true},
        {PowerSource::powerAdapter, LidObservation{LidOutcome::keptRunning, now - 3 * 86400}, none, "Keeps running",
         "Seen 11/13/25: the lid was closed on power adapter and this Mac kept running.", true},
        {PowerSource::powerAdapter, std::nullopt, none, "Not set up for it",
         "Closing the lid sleeps this Mac. Running with it shut needs an external display and an external keyboard "
         "or mouse.",
         false},
        {PowerSource::powerAdapter, std::nullopt, displayOnly, "Not set up for it",
         "Closing the lid sleeps this Mac. Running with it shut needs an external keyboard or mouse.", false},
        {PowerSource::battery, std::nullopt, inputOnly, "Not set up for it",
         "Closing the lid sleeps this Mac. Running with it shut needs an external display.", false},
        {PowerSource::powerAdapter, std::nullopt, ready, "Expect it to keep running",
         "A display and an input device are connected, which is what clamshell mode asks for. Close the lid once on "
         "the adapter and this will say what actually happened.",
         false},
        {PowerSource::battery, std::nullopt, ready, "Expect it to sleep",
         "Apple's requirements for clamshell mode include the power adapter. Some Macs run on battery anyway — close "
         "the lid once unplugged and this will say whether yours does.",
         false},
    };
    for (const auto& c : cases) {
        LidVerdict verdict(c.source, c.observation, c.conditions, now, utc);
        EXPECT_EQ(verdict.summary, c.summary);
        EXPECT_EQ(verdict.detail, c.detail);
        EXPECT_EQ(verdict.isObserved, c.observed);
    }
}

TEST(LidVerdict, TodayAndYesterdayFollowTheCalendarsTimeZone) {
    // 2025-11-16 01:00 UTC is still the 15th in New York, and 23:30 UTC on the 15th is the 16th in Tokyo.
    const double now = 1763254800;
    const double lateOnThe15thUTC = now - 5400;
    EXPECT_EQ(LidVerdict::describe(lateOnThe15thUTC, now, {"UTC", "en_US"}), "yesterday");
    EXPECT_EQ(LidVerdict::describe(lateOnThe15thUTC, now, {"America/New_York", "en_US"}), "today");
    EXPECT_EQ(LidVerdict::describe(lateOnThe15thUTC, now, {"Asia/Tokyo", "en_US"}), "today");
    EXPECT_EQ(LidVerdict::describe(now - 2 * 86400, now, {"UTC", "en_GB"}), "14/11/2025");
}

TEST_F(LidTest, NothingIsRecordedWithoutALidShutBeyondTheSettleTime) {
    auto watcher = make();
    scheduler.advance(5);
    close();
    scheduler.advance(5);
    open();  // opened again within the settle time
    scheduler.advance(65);
    // A sleep with the lid open is of no account.
    sleepFor(600);
    workspace.post({WorkspaceEvent::willSleep, std::nullopt});
    scheduler.advance(5);
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(outcome(PowerSource::powerAdapter), std::nullopt);

    watcher->stop();
    close();
    scheduler.advance(60);
    workspace.post({WorkspaceEvent::willSleep, std::nullopt});
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(scheduler.pendingTimers(), 0u);
}

TEST_F(LidTest, ASleepSoonAfterClosingIsSleptAndRunningPastTheSettleTimeIsKeptRunning) {
    auto watcher = make();
    readings.onPowerAdapter = false;
    close();
    scheduler.advance(8);
    workspace.post({WorkspaceEvent::willSleep, std::nullopt});
    EXPECT_EQ(outcome(PowerSource::battery), LidOutcome::slept);
    EXPECT_EQ(outcome(PowerSource::powerAdapter), std::nullopt);  // one source does not answer for the other
    EXPECT_EQ(changes, 1);

    open();
    scheduler.advance(5);
    readings.onPowerAdapter = true;
    close();
    scheduler.advance(5);   // seen closed
    scheduler.advance(15);  // 15 s after the closing: not yet
    EXPECT_EQ(outcome(PowerSource::powerAdapter), std::nullopt);
    scheduler.advance(5);   // 20 s
    EXPECT_EQ(outcome(PowerSource::powerAdapter), LidOutcome::keptRunning);
    // A later sleep adds nothing.
    workspace.post({WorkspaceEvent::willSleep, std::nullopt});
    EXPECT_EQ(outcome(PowerSource::powerAdapter), LidOutcome::keptRunning);
    EXPECT_EQ(changes, 2);
}

TEST_F(LidTest, AnUnannouncedSleepIsFoundOnWakingByThePollOrTheWakeNotice) {
    auto watcher = make();
    close();
    scheduler.advance(5);
    sleepFor(3600);
    // On waking, the first poll sees the clocks drift apart: the machine slept with the lid shut.
    scheduler.advance(5);
    EXPECT_EQ(outcome(PowerSource::powerAdapter), LidOutcome::slept);
    // And the long wall-clock gap is not mistaken for running on past the settle time.
    scheduler.advance(30);
    EXPECT_EQ(outcome(PowerSource::powerAdapter), LidOutcome::slept);
    EXPECT_EQ(changes, 1);

    // A wake notice checks at once, even with the lid open again.
    open();
    scheduler.advance(5);
    readings.onPowerAdapter = false;
    close();
    scheduler.advance(5);
    sleepFor(600);
    open();
    workspace.post({WorkspaceEvent::didWake, std::nullopt});
    EXPECT_EQ(outcome(PowerSource::battery), LidOutcome::slept);
}
