#include "TweakKit/TweakController.h"

#include "CoreKit/ManualScheduler.h"
#include "Platform/Linux/JSONPreferenceStore.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace tavrick {
namespace {

using testing::TempDir;
using testing::writeFile;

TEST(TweakValue, MatchesLooselyTypedPreferencesByItsOwnKind) {
    struct Case {
        TweakValue on;
        PreferenceValue stored;
        bool matches;
    } cases[] = {
        {{true}, PreferenceValue(true), true},        {{true}, PreferenceValue(false), false},
        {{true}, PreferenceValue(1), true},           {{true}, PreferenceValue(0.5), true},
        {{true}, PreferenceValue(0), false},          {{true}, PreferenceValue("yes"), true},
        {{true}, PreferenceValue("YES"), false},      {{true}, PreferenceValue("1"), true},
        {{true}, PreferenceValue("true"), true},      {{false}, PreferenceValue("no"), true},
        {{false}, PreferenceValue(0), true},          {{false}, PreferenceValue("yes"), false},
        {{true}, PreferenceValue(PreferenceValue::Array{}), false},
        {{std::int64_t{2}}, PreferenceValue(2), true}, {{std::int64_t{2}}, PreferenceValue(2.9), true},
        {{std::int64_t{2}}, PreferenceValue("+2"), true}, {{std::int64_t{-2}}, PreferenceValue("-2"), true},
        {{std::int64_t{2}}, PreferenceValue("2.0"), false}, {{std::int64_t{2}}, PreferenceValue("two"), false},
        {{std::int64_t{1}}, PreferenceValue(true), true},
        {{0.0}, PreferenceValue(0.00001), true},      {{0.0}, PreferenceValue(0.5), false},
        {{0.0}, PreferenceValue(0), true},            {{0.0}, PreferenceValue("0.00005"), true},
        {{0.0}, PreferenceValue("0.1"), false},       {{0.0}, PreferenceValue("x"), false},
        {{std::string("scale")}, PreferenceValue("scale"), true},
        {{std::string("scale")}, PreferenceValue("Scale"), false},
        {{std::string("1")}, PreferenceValue(1), false},
    };
    for (const auto& c : cases) EXPECT_EQ(c.on.matches(c.stored), c.matches) << c.stored.summary();
}

TEST(Tweaks, CatalogueOrderGroupsAndLookups) {
    ASSERT_EQ(Tweaks::all().size(), 26u);
    EXPECT_EQ(Tweaks::all().front().id, "showHiddenFiles");
    EXPECT_EQ(Tweaks::all().back().id, "noQuarantinePrompt");
    EXPECT_EQ(Tweaks::all(TweakGroup::windows).size(), 3u);
    EXPECT_EQ(Tweaks::all(TweakCategory::desktop).size(), 9u);
    EXPECT_EQ(Tweaks::populatedCategories().size(), 4u);
    EXPECT_EQ(Tweaks::populatedGroups(TweakCategory::system),
              (std::vector<TweakGroup>{TweakGroup::privacy, TweakGroup::sound, TweakGroup::security}));
    EXPECT_EQ(Tweaks::tweak("nope"), std::nullopt);
    EXPECT_EQ(Tweaks::tweak("showAllExtensions")->settings[0].applicationID(), Tweaks::anyApplication);
    EXPECT_EQ(Tweaks::tweak("noQuarantinePrompt")->title, "Skip the “downloaded from the internet” warning");
}

// Simulated applications: quitting takes effect when asked, and the supervisor brings back the
// ones that relaunch themselves after `comesBackAfter` polls.
struct FakeApplications {
    std::map<std::string, std::set<std::int32_t>> running;
    std::vector<std::string> calls;
    std::set<std::string> ignoresTerminate;
    std::set<std::string> comesBack;
    std::optional<std::string> openFailure;
    std::int32_t nextPid = 100;

    std::string owner(std::int32_t pid) {
        for (auto& [id, pids] : running) {
            if (pids.count(pid)) return id;
        }
        return "";
    }
    TweakApplications port() {
        return TweakApplications{
            [this](const std::string& id) {
                if (comesBack.count(id) && running[id].empty()) {
                    comesBack.erase(id);
                    calls.push_back("supervisor " + id);
                    running[id].insert(nextPid++);
                    return std::vector<std::int32_t>{};
                }
                return std::vector<std::int32_t>(running[id].begin(), running[id].end());
            },
            [this](std::int32_t pid) {
                auto id = owner(pid);
                calls.push_back("terminate " + id);
                if (!ignoresTerminate.count(id)) running[id].erase(pid);
                return true;
            },
            [this](std::int32_t pid) {
                auto id = owner(pid);
                calls.push_back("force " + id);
                running[id].erase(pid);
                return true;
            },
            [this](const std::string& url, std::function<void(std::optional<std::string>)> done) {
                calls.push_back("open " + url);
                if (!openFailure) running["com.apple.finder"].insert(nextPid++);
                done(openFailure);
            },
        };
    }
};

class TweakControllerTest : public ::testing::Test {
protected:
    TempDir temp;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(temp / "logs", scheduler);
    FakeApplications apps;
    PreferenceDomains domains = [this](const std::string& id) {
        return std::make_shared<JSONPreferenceStore>(temp / "prefs" / id / "defaults.json");
    };
    std::shared_ptr<TweakController> controller = TweakController::make(domains, apps.port(), scheduler, *log);

    std::shared_ptr<PreferenceStore> domain(const std::string& id) { return domains(id); }
    std::string notes() {
        scheduler.runUntilIdle();
        return log->contents();
    }
};

TEST_F(TweakControllerTest, TheSwitchReadsTheRealPreferenceEveryTime) {
    auto ds = *Tweaks::tweak("noDSStoreOnShares");
    EXPECT_FALSE(controller->isOn(ds));
    domain("com.apple.desktopservices")->set("DSDontWriteNetworkStores", true);
    EXPECT_FALSE(controller->isOn(ds)) << "one of two keys is not on";
    // Another program writes the file by hand; the next read shows it.
    writeFile(temp / "prefs/com.apple.desktopservices/defaults.json",
              "{\"DSDontWriteNetworkStores\": 1, \"DSDontWriteUSBStores\": \"yes\"}");
    EXPECT_TRUE(controller->isOn(ds));
    writeFile(temp / "prefs/com.apple.desktopservices/defaults.json",
              "{\"DSDontWriteNetworkStores\": 1, \"DSDontWriteUSBStores\": \"YES\"}");
    EXPECT_FALSE(controller->isOn(ds));
    // A domain that is not a JSON object reads as absent and is kept aside, not lost.
    writeFile(temp / "prefs/com.apple.dock/defaults.json", "[1, 2]");
    EXPECT_FALSE(controller->isOn(*Tweaks::tweak("noRecentApps")));
    EXPECT_TRUE(Tweaks::readBool("missing", "com.apple.dock", true, domains));
}

TEST_F(TweakControllerTest, OffRemovesEveryKeyAndOnWritesTypedValues) {
    auto siri = *Tweaks::tweak("noSiriSharingOrAds");
    std::optional<bool> result;
    controller->set(siri, true, [&](bool ok) { result = ok; });
    EXPECT_EQ(result, true);
    EXPECT_EQ(domain("com.apple.assistant.support")->object("Siri Data Sharing Opt-In Status"), PreferenceValue(2));
    EXPECT_EQ(domain("com.apple.AdLib")->object("allowApplePersonalizedAdvertising"), PreferenceValue(false));
    domain("com.apple.AdLib")->set("other", "kept");
    controller->set(siri, false, [&](bool ok) { result = ok; });
    EXPECT_EQ(result, true);
    EXPECT_EQ(domain("com.apple.assistant.support")->object("Siri Data Sharing Opt-In Status"), std::nullopt);
    EXPECT_EQ(domain("com.apple.AdLib")->allKeys(), std::vector<std::string>{"other"});
    EXPECT_TRUE(apps.calls.empty()) << "nothing to restart";
}

TEST_F(TweakControllerTest, RestartsQuitPolitelyThenByForceAndWaitForTheReturn) {
    struct Case {
        RestartTarget target;
        bool ignoresQuit;
        bool comesBack;
        std::optional<std::string> openFailure;
        bool result;
        std::vector<std::string> calls;
        std::string note;
    } cases[] = {
        {RestartTarget::dock, false, true, std::nullopt, true,
         {"terminate com.apple.dock", "supervisor com.apple.dock"}, "the Dock came back"},
        {RestartTarget::dock, true, false, std::nullopt, false,
         {"terminate com.apple.dock", "force com.apple.dock"}, "the Dock did not come back"},
        {RestartTarget::finder, false, false, std::nullopt, true,
         {"terminate com.apple.finder", "open /System/Library/CoreServices/Finder.app"}, "Finder came back"},
        {RestartTarget::finder, false, false, "no such app", false,
         {"terminate com.apple.finder", "open /System/Library/CoreServices/Finder.app"}, "could not relaunch Finder"},
        {RestartTarget::powerChime, false, false, std::nullopt, true, {"terminate com.apple.PowerChime"}, ""},
    };
    for (const auto& c : cases) {
        apps = FakeApplications{};
        std::string id = bundleIdentifier(c.target);
        apps.running[id] = {7};
        if (c.ignoresQuit) apps.ignoresTerminate.insert(id);
        if (c.comesBack) apps.comesBack.insert(id);
        apps.openFailure = c.openFailure;
        log->clear();
        std::optional<bool> result;
        controller->restart(c.target, [&](bool ok) { result = ok; });
        EXPECT_FALSE(result.has_value() && c.target != RestartTarget::powerChime) << "waits are timers, never blocking";
        scheduler.advance(TweakController::step * 20);
        EXPECT_EQ(result, c.result) << rawValue(c.target);
        EXPECT_EQ(apps.calls, c.calls) << rawValue(c.target);
        if (!c.note.empty()) {
            EXPECT_NE(notes().find("tweak") , std::string::npos);
            EXPECT_NE(notes().find(c.note), std::string::npos) << notes();
        }
    }
}

TEST_F(TweakControllerTest, ApplyAllRestartsEachTargetOnce) {
    apps.running["com.apple.finder"] = {1};
    apps.running["com.apple.dock"] = {2};
    apps.comesBack.insert("com.apple.dock");
    std::optional<int> applied;
    controller->applyAll(Tweaks::all(TweakGroup::finder), [&](int n) { applied = n; });
    scheduler.advance(30);
    EXPECT_EQ(applied, 8);
    EXPECT_EQ(std::count(apps.calls.begin(), apps.calls.end(), "terminate com.apple.finder"), 1);
    EXPECT_EQ(std::count(apps.calls.begin(), apps.calls.end(), "terminate com.apple.dock"), 0);
    for (const auto& tweak : Tweaks::all(TweakGroup::finder)) EXPECT_TRUE(controller->isOn(tweak)) << tweak.id;
}

} // namespace
} // namespace tavrick
