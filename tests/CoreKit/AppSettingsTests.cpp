#include "CoreKit/AppInfo.h"
#include "CoreKit/AppSettings.h"
#include "CoreKit/Bundle.h"
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/ManualScheduler.h"
#include "RawValues.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>

namespace tavrick {
namespace {

using Dictionary = PreferenceValue::Dictionary;
using S = MenuBarSection;

PreferenceValue layoutData(const std::vector<MenuBarItem>& items) {
    return PreferenceValue::data(MenuBarLayout::encode(items));
}

// How a test table reads a choice or a switch back, as text.
template <auto property>
std::string rawOf(AppSettings& settings) {
    return std::string(rawValue((settings.*property).get()));
}
template <auto property>
std::string flagOf(AppSettings& settings) {
    return (settings.*property).get() ? "true" : "false";
}

// A key the settings store is lost on restore unless a backup carries it.
bool isBackedUp(const std::string& key) {
    const auto& keys = AppSettings::backedUpKeys;
    return key != "fanBoostLevel" && std::find(keys.begin(), keys.end(), key) != keys.end();
}

class AppSettingsTest : public ::testing::Test {
protected:
    std::unique_ptr<AppSettings> make() { return std::make_unique<AppSettings>(defaults, *log); }

    std::string notes() { return log->contents(); }

    tavrick::testing::TempDir directory;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(directory.path(), scheduler);
    InMemoryPreferenceStore defaults;
};

// The fallback tables below read most defaults; these are the ones they do not reach.
TEST_F(AppSettingsTest, AnEmptyDomainReadsTheDefaultsAndWritesOnlyTheButtonGeneration) {
    auto settings = make();
    EXPECT_FALSE(settings->clipboardClearOnQuit.get());
    EXPECT_FALSE(settings->isNetworkMonitorEnabled.get());
    EXPECT_FALSE(settings->serveOnNetwork.get());
    EXPECT_EQ(settings->aiBaseURL.get(), "");
    EXPECT_EQ(settings->menuBarItems.get(), MenuBarLayout::defaultLayout());
    EXPECT_EQ(settings->selectionActions(), SelectionAction::defaults());
    EXPECT_EQ(settings->selectionAppearance.get(), SelectionAppearance{});
    EXPECT_EQ(settings->searchEngine.get(), SearchEngine(SearchEngine::Case::duckDuckGo));
    EXPECT_EQ(settings->selectionActionsGeneration.get(), 1);
    // A new user's list is the built-in one and needs no storing; only the generation it saw does.
    EXPECT_EQ(defaults.writeCount(), 1u);
    EXPECT_EQ(defaults.allKeys(), std::vector<std::string>{"selectionActionsGeneration"});
}

TEST(AppSettingsClampTest, IntegersAreClampedOnReadingAndWrongTypesGiveTheDefault) {
    struct Case {
        const char* key;
        PreferenceValue stored;
        std::int64_t expected;
    };
    std::vector<Case> cases{
        {"clipboardMaximumItems", 5, 10},
        {"clipboardMaximumItems", 9999, 500},
        {"clipboardMaximumItems", "text", 100},
        {"clipboardMaximumItems", 10, 10},
        {"clipboardMaximumItems", 500, 500},
        {"clipboardMaximumItems", -3, 10},
        {"clipboardMaximumItems", 250.0, 250},
        {"clipboardMaximumItems", 250.5, 100},
        {"clipboardMaximumItems", PreferenceValue::data("250"), 100},
        {"networkSampleSeconds", 0, 1},
        {"networkSampleSeconds", 61, 60},
        {"networkSampleSeconds", "5", 3},
        {"networkSampleSeconds", PreferenceValue::Array{5}, 3},
        {"servePort", 65535, 65535},
        {"servePort", 0, 0},
        {"vaultLockSeconds", 0, 0},
        {"vaultClipboardSeconds", 3600, 3600},
        {"vaultClipboardSeconds", 4.5, 45},
    };
    tavrick::testing::TempDir directory;
    ManualScheduler scheduler;
    auto log = DiagnosticLog::make(directory.path(), scheduler);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.key) + " = " + c.stored.summary());
        // A domain that has already seen this build's buttons, so that only clamping is in play.
        InMemoryPreferenceStore defaults({{c.key, c.stored}, {"selectionActionsGeneration", std::int64_t{1}}});
        AppSettings settings(defaults, *log);
        std::map<std::string, std::int64_t> read{
            {"clipboardMaximumItems", settings.clipboardMaximumItems.get()},
            {"networkSampleSeconds", settings.networkSampleSeconds.get()},
            {"servePort", settings.servePort.get()},
            {"vaultLockSeconds", settings.vaultLockSeconds.get()},
            {"vaultClipboardSeconds", settings.vaultClipboardSeconds.get()},
        };
        EXPECT_EQ(read.at(c.key), c.expected);
        EXPECT_TRUE(isBackedUp(c.key));
        // Clamping happens on reading only: what is stored stays until the property is written.
        EXPECT_EQ(defaults.object(c.key), c.stored);
        EXPECT_EQ(defaults.writeCount(), 0u);
    }
}

TEST(AppSettingsFallbackTest, UnknownOrWronglyTypedValuesFallBackPerProperty) {
    using Read = std::function<std::string(AppSettings&)>;
    Read provider = [](AppSettings& s) { return s.aiProvider.get(); };
    Read translate = [](AppSettings& s) { return s.translateInto.get(); };
    Read folder = [](AppSettings& s) { return s.serveFolder.get(); };
    Read learning = [](AppSettings& s) { return std::to_string(s.networkLearningStartedAt.get()); };
    Read muted = [](AppSettings& s) {
        std::string joined;
        for (const auto& app : s.networkMutedApps.get()) joined += app + ";";
        return joined;
    };
    Read models = [](AppSettings& s) {
        std::string joined;
        for (const auto& [provider, model] : s.aiModels.get()) joined += provider + "=" + model + ";";
        return joined;
    };

    struct Case {
        const char* key;
        std::optional<PreferenceValue> stored;
        Read read;
        std::string expected;
    };
    std::vector<Case> cases{
        {"menuBarIconStyle", "tavrick", rawOf<&AppSettings::menuBarIconStyle>, "tavrick"},
        {"menuBarIconStyle", "sparkles", rawOf<&AppSettings::menuBarIconStyle>, "gestures"},
        {"menuBarReadout", "chipTemperature", rawOf<&AppSettings::menuBarReadout>, "chipTemperature"},
        {"menuBarReadout", "Fan speed", rawOf<&AppSettings::menuBarReadout>, "off"},
        {"networkAlertMode", "off", rawOf<&AppSettings::networkAlertMode>, "off"},
        {"networkAlertMode", "always", rawOf<&AppSettings::networkAlertMode>, "newAppsAndHosts"},
        {"appearance", "dark", rawOf<&AppSettings::appearance>, "dark"},
        {"appearance", "Dark", rawOf<&AppSettings::appearance>, "system"},
        {"selectionMode", "automatic", rawOf<&AppSettings::selectionMode>, "automatic"},
        {"selectionMode", "sometimes", rawOf<&AppSettings::selectionMode>, "off"},
        {"notepadPresentation", "window", rawOf<&AppSettings::notepadPresentation>, "window"},
        {"notepadPresentation", "banana", rawOf<&AppSettings::notepadPresentation>, "underMenuBar"},
        {"clipboardEnabled", std::nullopt, flagOf<&AppSettings::isClipboardEnabled>, "true"},
        {"clipboardEnabled", false, flagOf<&AppSettings::isClipboardEnabled>, "false"},
        {"clipboardEnabled", "NO", flagOf<&AppSettings::isClipboardEnabled>, "true"},
        {"windowSnappingEnabled", "false", flagOf<&AppSettings::isWindowSnappingEnabled>, "true"},
        {"showConfirmations", std::nullopt, flagOf<&AppSettings::showConfirmations>, "true"},
        {"showConfirmations", 0.0, flagOf<&AppSettings::showConfirmations>, "true"},
        {"hasCompletedWelcome", true, flagOf<&AppSettings::hasCompletedWelcome>, "true"},
        {"hasCompletedWelcome", 1, flagOf<&AppSettings::hasCompletedWelcome>, "false"},
        {"copyOnSelect", PreferenceValue::Array{true}, flagOf<&AppSettings::copyOnSelect>, "false"},
        {"aiProvider", "openai", provider, "openai"},
        {"aiProvider", "", provider, ""},
        {"aiProvider", 5, provider, "anthropic"},
        {"translateInto", PreferenceValue::data("German"), translate, "English"},
        {"serveFolder", PreferenceValue::Dictionary{{"path", "/tmp"}}, folder, ""},
        {"networkLearningStartedAt", 1763251200.5, learning, "1763251200.500000"},
        {"networkLearningStartedAt", "yesterday", learning, "0.000000"},
        {"networkMutedApps", PreferenceValue::Array{"com.a", "com.b"}, muted, "com.a;com.b;"},
        {"networkMutedApps", PreferenceValue::Array{"com.a", 1}, muted, ""},
        {"aiModelsByProvider", PreferenceValue::Dictionary{{"anthropic", "m1"}, {"openai", "m2"}}, models,
         "anthropic=m1;openai=m2;"},
        {"aiModelsByProvider", PreferenceValue::Dictionary{{"anthropic", "m1"}, {"openai", 2}}, models, ""},
    };
    tavrick::testing::TempDir directory;
    ManualScheduler scheduler;
    auto log = DiagnosticLog::make(directory.path(), scheduler);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.key) + " = " + (c.stored ? c.stored->summary() : "absent"));
        InMemoryPreferenceStore defaults;
        if (c.stored) defaults.set(c.key, *c.stored);
        AppSettings settings(defaults, *log);
        EXPECT_EQ(c.read(settings), c.expected);
        EXPECT_TRUE(isBackedUp(c.key));
        // A value that cannot be read is left as it is.
        EXPECT_EQ(defaults.object(c.key), c.stored);
    }
}

TEST_F(AppSettingsTest, MenuBarItemsAreDecodedAndUnreadableBytesFallBackToTheDefault) {
    struct Case {
        const char* name;
        PreferenceValue stored;
        std::vector<S> firstSections;
    };
    std::vector<Case> cases{
        {"a stored layout", layoutData({{S::vault, false}, {S::fans, true}}), {S::vault, S::fans, S::masterToggle}},
        {"three sections", layoutData({{S::notepad, true}, {S::clipboard, true}, {S::system, true}}),
         {S::notepad, S::clipboard, S::system, S::masterToggle}},
        {"bytes that are not JSON", PreferenceValue::data("\x01\x02"), {S::masterToggle, S::windowSnapping}},
        {"the layout as text, not data", MenuBarLayout::encode({{S::vault, false}}), {S::masterToggle}},
        {"a number", 3, {S::masterToggle}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        InMemoryPreferenceStore store({{"menuBarItems", c.stored}});
        AppSettings settings(store, *log);
        const auto& items = settings.menuBarItems.get();
        ASSERT_EQ(items.size(), 11u);
        for (std::size_t i = 0; i < c.firstSections.size(); ++i) EXPECT_EQ(items[i].section, c.firstSections[i]);
        EXPECT_EQ(store.object("menuBarItems"), c.stored);
    }
}

TEST_F(AppSettingsTest, SettersStoreEachKindUnderItsKey) {
    auto settings = make();
    settings->menuBarIconStyle.set(MenuBarIconStyle::command);
    settings->menuBarReadout.set(MenuBarReadout::fanSpeed);
    settings->isClipboardEnabled.set(false);
    settings->clipboardMaximumItems.set(200);
    settings->networkAlertMode.set(NetworkAlertMode::newApps);
    settings->networkMutedApps.set({"com.example.a", "com.example.b"});
    settings->networkLearningStartedAt.set(1763251200.0);
    settings->appearance.set(AppAppearance::dark);
    settings->isWindowSnappingEnabled.set(false);
    settings->selectionMode.set(SelectionMode::onDemand);
    settings->serveFolder.set("/srv/www");
    settings->notepadPresentation.set(NotepadPresentation::window);
    settings->aiModels.set({{"anthropic", "m1"}});
    settings->menuBarItems.set(MenuBarLayout::normalized({{S::vault, false}}));

    EXPECT_EQ(defaults.object("menuBarIconStyle"), PreferenceValue("command"));
    EXPECT_EQ(defaults.object("menuBarReadout"), PreferenceValue("fanSpeed"));
    EXPECT_EQ(defaults.object("clipboardEnabled"), PreferenceValue(false));
    EXPECT_EQ(defaults.object("clipboardMaximumItems"), PreferenceValue(200));
    EXPECT_EQ(defaults.object("networkAlertMode"), PreferenceValue("newApps"));
    EXPECT_EQ(defaults.object("networkMutedApps"), PreferenceValue(PreferenceValue::Array{"com.example.a", "com.example.b"}));
    // A real stays a real even when it has no fraction.
    EXPECT_EQ(defaults.object("networkLearningStartedAt"), PreferenceValue(1763251200.0));
    EXPECT_EQ(defaults.object("appearance"), PreferenceValue("dark"));
    EXPECT_EQ(defaults.object("windowSnappingEnabled"), PreferenceValue(false));
    EXPECT_EQ(defaults.object("selectionMode"), PreferenceValue("onDemand"));
    EXPECT_EQ(defaults.object("serveFolder"), PreferenceValue("/srv/www"));
    EXPECT_EQ(defaults.object("notepadPresentation"), PreferenceValue("window"));
    EXPECT_EQ(defaults.object("aiModelsByProvider"), PreferenceValue(Dictionary{{"anthropic", "m1"}}));
    for (const auto& key : defaults.allKeys()) EXPECT_TRUE(isBackedUp(key)) << key;
    ASSERT_TRUE(defaults.data("menuBarItems"));
    EXPECT_EQ(MenuBarLayout::decode(*defaults.data("menuBarItems")), MenuBarLayout::normalized({{S::vault, false}}));

    // And a second launch reads them back.
    auto again = make();
    EXPECT_EQ(again->menuBarIconStyle.get(), MenuBarIconStyle::command);
    EXPECT_EQ(again->clipboardMaximumItems.get(), 200);
    EXPECT_EQ(again->networkMutedApps.get(), (std::vector<std::string>{"com.example.a", "com.example.b"}));
    EXPECT_EQ(again->aiModels.get().at("anthropic"), "m1");
    EXPECT_EQ(again->menuBarItems.get().front(), (MenuBarItem{S::vault, false}));
}

TEST_F(AppSettingsTest, SettingTheSameValueDoesNotNotifyButAChangeDoes) {
    auto settings = make();
    std::vector<AppAppearance> seen;
    auto observation = settings->appearance.observe([&](const AppAppearance& value) { seen.push_back(value); });

    EXPECT_FALSE(settings->appearance.set(AppAppearance::system));
    EXPECT_TRUE(seen.empty());
    EXPECT_TRUE(settings->appearance.set(AppAppearance::dark));
    EXPECT_FALSE(settings->appearance.set(AppAppearance::dark));
    EXPECT_EQ(seen, (std::vector<AppAppearance>{AppAppearance::dark}));

    std::vector<std::vector<MenuBarItem>> layouts;
    auto layoutObservation = settings->menuBarItems.observe([&](const auto& items) { layouts.push_back(items); });
    settings->menuBarItems.set(MenuBarLayout::defaultLayout());
    EXPECT_TRUE(layouts.empty());

    // Observers see the new value already stored.
    std::optional<PreferenceValue> storedWhenTold;
    auto modeObservation = settings->selectionMode.observe(
        [&](const SelectionMode&) { storedWhenTold = defaults.object("selectionMode"); });
    settings->selectionMode.set(SelectionMode::automatic);
    EXPECT_EQ(storedWhenTold, PreferenceValue("automatic"));

    // Choosing the value a stored one was clamped to tells nobody, but writes it back in range.
    defaults.set("clipboardMaximumItems", 5);
    auto clamped = make();
    ASSERT_EQ(clamped->clipboardMaximumItems.get(), 10);
    int told = 0;
    auto countObservation = clamped->clipboardMaximumItems.observe([&](const std::int64_t&) { ++told; });
    clamped->clipboardMaximumItems.set(10);
    EXPECT_EQ(told, 0);
    EXPECT_EQ(defaults.object("clipboardMaximumItems"), PreferenceValue(10));
}

TEST_F(AppSettingsTest, FanBoostLevelIsGoneAfterConstructionAndNothingElseIsTouched) {
    defaults.set("fanBoostLevel", 3);
    defaults.set("appearance", "dark");
    defaults.set("lidObservations", PreferenceValue::Array{1.5, 2.5});
    auto before = defaults.writeCount();
    auto settings = make();
    EXPECT_FALSE(defaults.object("fanBoostLevel"));
    EXPECT_EQ(defaults.object("appearance"), PreferenceValue("dark"));
    EXPECT_EQ(defaults.object("lidObservations"), PreferenceValue(PreferenceValue::Array{1.5, 2.5}));
    // The removal, and the first launch's note of the button generation.
    EXPECT_EQ(defaults.writeCount(), before + 2);

    // Whatever its type.
    defaults.set("fanBoostLevel", "max");
    AppSettings second(defaults, *log);
    EXPECT_FALSE(defaults.object("fanBoostLevel"));
}

TEST_F(AppSettingsTest, ReloadTakesOnTheDomainWithoutWritingAndTellsOnlyChangedProperties) {
    defaults.set("appearance", "dark");
    defaults.set("servePort", 8080);
    auto settings = make();

    // What a restore writes behind the settings' back.
    defaults.set("appearance", "light");
    defaults.set("clipboardMaximumItems", 9999);
    defaults.set("menuBarItems", layoutData({{S::vault, false}}));
    defaults.set("selectionActions", PreferenceValue::data(R"([{"futureButton":{"x":1}}])"));

    std::vector<std::string> told;
    std::vector<bool> reloadingWhenTold;
    auto watch = [&](const char* name) {
        return [&, name](const auto&) {
            told.push_back(name);
            reloadingWhenTold.push_back(settings->isReloading());
        };
    };
    std::vector<Observation> observations;
    observations.push_back(settings->appearance.observe(watch("appearance")));
    observations.push_back(settings->servePort.observe(watch("servePort")));
    observations.push_back(settings->clipboardMaximumItems.observe(watch("clipboardMaximumItems")));
    observations.push_back(settings->menuBarItems.observe(watch("menuBarItems")));
    observations.push_back(settings->selectionActionStore.observe(watch("selectionActions")));
    observations.push_back(settings->isClipboardEnabled.observe(watch("isClipboardEnabled")));

    auto writesBefore = defaults.writeCount();
    auto storedBefore = defaults.dictionaryRepresentation();
    settings->reload();

    EXPECT_EQ(defaults.writeCount(), writesBefore);
    EXPECT_EQ(defaults.dictionaryRepresentation(), storedBefore);
    EXPECT_FALSE(settings->isReloading());
    std::sort(told.begin(), told.end());
    EXPECT_EQ(told, (std::vector<std::string>{"appearance", "clipboardMaximumItems", "menuBarItems", "selectionActions"}));
    EXPECT_EQ(reloadingWhenTold, (std::vector<bool>{true, true, true, true}));
    EXPECT_EQ(settings->appearance.get(), AppAppearance::light);
    EXPECT_EQ(settings->clipboardMaximumItems.get(), 500);
    EXPECT_EQ(settings->servePort.get(), 8080);
    EXPECT_EQ(settings->menuBarItems.get().front(), (MenuBarItem{S::vault, false}));
    EXPECT_EQ(settings->selectionActionStore.get().unknownCount(), 1u);
    EXPECT_TRUE(settings->selectionActions().empty());
    // The layout's note belongs to a choice the user made, not to a restore.
    EXPECT_EQ(notes().find("layout saved"), std::string::npos);

    // After the reload, setters store again.
    settings->appearance.set(AppAppearance::system);
    EXPECT_EQ(defaults.object("appearance"), PreferenceValue("system"));
}

TEST_F(AppSettingsTest, SelectionButtonsMigrateOnceAndKeepWhatThisBuildCannotRead) {
    struct Case {
        const char* name;
        std::optional<std::string> stored;  // bytes under "selectionActions"
        std::optional<std::int64_t> generation;
        std::vector<std::string> ids;            // the buttons shown
        std::size_t unknown;
        std::optional<std::string> storedAfter;  // nothing: whatever was there is left alone
        bool notesKept;
    };
    const std::vector<Case> cases{
        {"generation 0 gains Open in Finder, the unknown entry goes to the end unchanged",
         R"([{"copy":{}},{"futureButton":{"x":1}},{"search":{}}])", std::nullopt,
         {"copy", "search", "revealInFinder"}, 1,
         R"([{"copy":{}},{"search":{}},{"revealInFinder":{}},{"futureButton":{"x":1}}])", true},
        {"a removed button stays removed once the generation is seen", R"([{"copy":{}}])", 1, {"copy"}, 0,
         R"([{"copy":{}}])", false},
        {"no second Open in Finder", R"([{"revealInFinder":{}},{"copy":{}}])", 0, {"revealInFinder", "copy"}, 0,
         R"([{"revealInFinder":{}},{"copy":{}}])", false},
        {"two keys in one entry are kept, not lost", R"([{"copy":{},"search":{}}])", 0, {"revealInFinder"}, 1,
         R"([{"revealInFinder":{}},{"copy":{},"search":{}}])", true},
        {"bytes that are not an array read as the defaults and stay", R"({"copy":{}})", 0,
         {"copy", "search", "openLink", "lookUp", "sum", "revealInFinder"}, 0, std::nullopt, false},
    };
    for (const auto& c : cases) {
        InMemoryPreferenceStore store;
        if (c.stored) store.set("selectionActions", PreferenceValue::data(*c.stored));
        if (c.generation) store.set("selectionActionsGeneration", *c.generation);
        auto before = log->contents();
        AppSettings settings(store, *log);
        std::vector<std::string> ids;
        for (const auto& action : settings.selectionActions()) ids.push_back(action.id());
        EXPECT_EQ(ids, c.ids) << c.name;
        EXPECT_EQ(settings.selectionActionStore.get().unknownCount(), c.unknown) << c.name;
        if (c.storedAfter) {
            EXPECT_EQ(store.object("selectionActions"), PreferenceValue::data(*c.storedAfter)) << c.name;
            EXPECT_EQ(store.integer("selectionActionsGeneration"), 1) << c.name;
        } else {
            EXPECT_EQ(store.object("selectionActions"), PreferenceValue::data(*c.stored)) << c.name;
            EXPECT_EQ(store.integer("selectionActionsGeneration"), c.generation) << c.name;
        }
        auto added = log->contents().substr(before.size());
        EXPECT_EQ(added.find("[selection] kept 1 buttons this build cannot read; they are saved back unchanged\n") !=
                      std::string::npos,
                  c.notesKept)
            << c.name << added;
    }
}

TEST_F(AppSettingsTest, AppearanceAndEngineFallBackWithoutTouchingWhatIsStored) {
    struct Case {
        std::string appearance;
        std::string engine;
        SelectionAppearance expectedAppearance;
        SearchEngine expectedEngine;
    };
    const std::vector<Case> cases{
        {R"({"size":"large","labels":"both","isBold":true})", R"({"custom":{"template":"https://e.test/?q={text}"}})",
         {SelectionBarSize::large, SelectionBarLabels::both, true}, SearchEngine::custom("https://e.test/?q={text}")},
        {"\xff\xfe not json", R"({"kagi":{}})", {}, SearchEngine::Case::kagi},
        // A missing key, an unknown size, an engine this build does not know, two keys.
        {R"({"size":"large","labels":"both"})", R"({"yandex":{}})", {}, {}},
        {R"({"size":"huge","labels":"icon","isBold":false})", R"({"google":{},"bing":{}})", {}, {}},
    };
    for (const auto& c : cases) {
        InMemoryPreferenceStore store;
        store.set("selectionAppearance", PreferenceValue::data(c.appearance));
        store.set("searchEngine", PreferenceValue::data(c.engine));
        AppSettings settings(store, *log);
        EXPECT_EQ(settings.selectionAppearance.get(), c.expectedAppearance) << c.appearance;
        EXPECT_EQ(settings.searchEngine.get(), c.expectedEngine) << c.engine;
        EXPECT_EQ(store.object("selectionAppearance"), PreferenceValue::data(c.appearance));
        EXPECT_EQ(store.object("searchEngine"), PreferenceValue::data(c.engine));
    }

    // A choice is stored in the form it is read back from.
    AppSettings settings(defaults, *log);
    settings.searchEngine.set(SearchEngine::Case::wikipedia);
    settings.selectionAppearance.set({SelectionBarSize::small, SelectionBarLabels::text, false});
    settings.selectionActionStore.set(settings.selectionActionStore.get().replacingActions({SelectionAction::Case::sum}));
    AppSettings second(defaults, *log);
    EXPECT_EQ(second.searchEngine.get(), SearchEngine(SearchEngine::Case::wikipedia));
    EXPECT_EQ(second.selectionAppearance.get().labels, SelectionBarLabels::text);
    EXPECT_EQ(second.selectionActions(), std::vector<SelectionAction>{SelectionAction::Case::sum});
}

TEST(AppSettingsDescribeTest, DescribeNamesHiddenSectionsInLayoutOrder) {
    EXPECT_EQ(AppSettings::describe(MenuBarLayout::defaultLayout()), "nothing hidden");
    EXPECT_EQ(AppSettings::describe({}), "nothing hidden");
    EXPECT_EQ(AppSettings::describe({{S::vault, false}, {S::clipboard, true}, {S::fans, false}}),
              "hidden: vault, fans");
    EXPECT_EQ(AppSettings::describe({{S::keepAwake, false}}), "hidden: keepAwake");
}

TEST_F(AppSettingsTest, SavingTheLayoutIsNotedUnderMenu) {
    auto settings = make();
    settings->menuBarItems.set(MenuBarLayout::normalized({{S::clipboard, false}, {S::network, false}}));
    EXPECT_NE(notes().find("[menu] layout saved — hidden: clipboard, network\n"), std::string::npos) << notes();

    defaults.setFailsWrites(true);
    settings->menuBarItems.set(MenuBarLayout::defaultLayout());
    auto text = notes();
    EXPECT_NE(text.find("[menu] could not save the layout\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("layout saved — nothing hidden"), std::string::npos) << text;
}

TEST(SettingsTypesTest, AlertFlagsAndStoredTexts) {
    struct Flags {
        NetworkAlertMode mode;
        bool apps;
        bool hosts;
    };
    for (auto [mode, apps, hosts] : {Flags{NetworkAlertMode::off, false, false}, Flags{NetworkAlertMode::newApps, true, false},
                                     Flags{NetworkAlertMode::newAppsAndHosts, true, true}}) {
        EXPECT_EQ(alertsOnNewApps(mode), apps) << rawValue(mode);
        EXPECT_EQ(alertsOnNewHosts(mode), hosts) << rawValue(mode);
    }
    // Every case reads back from its raw value, which is what the settings store.
    const auto raws = [](auto cases) { return tavrick::testing::roundTrippedRaws(cases); };
    EXPECT_EQ(raws(allCases<MenuBarIconStyle>()), "tavrick gestures command");
    EXPECT_EQ(raws(allCases<MenuBarReadout>()), "off fanSpeed chipTemperature");
    EXPECT_EQ(raws(allCases<NetworkAlertMode>()), "off newApps newAppsAndHosts");
    EXPECT_EQ(raws(allCases<AppAppearance>()), "system light dark");
    EXPECT_EQ(raws(allCases<NotepadPresentation>()), "window underMenuBar");
    EXPECT_EQ(raws(allCases<SelectionMode>()), "off onDemand automatic");
}

class FakeBundle final : public Bundle {
public:
    FakeBundle(std::optional<std::string> identifier, std::map<std::string, std::string> info)
        : identifier_(std::move(identifier)), info_(std::move(info)) {}
    std::optional<std::string> identifier() const override { return identifier_; }
    std::optional<std::string> infoString(const std::string& key) const override {
        auto found = info_.find(key);
        if (found == info_.end()) return std::nullopt;
        return found->second;
    }
    std::optional<std::filesystem::path> resourcePath(const std::string&) const override { return std::nullopt; }
    std::filesystem::path bundlePath() const override { return {}; }

private:
    std::optional<std::string> identifier_;
    std::map<std::string, std::string> info_;
};

TEST(AppInfoTest, AnswersFromTheBundleElseFallsBack) {
    Bundle::setMain(std::make_shared<FakeBundle>(std::nullopt, std::map<std::string, std::string>{}));
    EXPECT_EQ(AppInfo::bundleIdentifier(), "com.orvell.tavrick");
    EXPECT_EQ(AppInfo::displayName(), "Tavrick");
    EXPECT_EQ(AppInfo::versionString(), "0.0.0 (0)");

    Bundle::setMain(std::make_shared<FakeBundle>(
        "com.example.build", std::map<std::string, std::string>{{"CFBundleDisplayName", "Tavrick Beta"},
                                                                {"CFBundleShortVersionString", "2.1.0"},
                                                                {"CFBundleVersion", "417"}}));
    EXPECT_EQ(AppInfo::bundleIdentifier(), "com.example.build");
    EXPECT_EQ(AppInfo::displayName(), "Tavrick Beta");
    EXPECT_EQ(AppInfo::version(), "2.1.0");
    EXPECT_EQ(AppInfo::build(), "417");
    EXPECT_EQ(AppInfo::versionString(), "2.1.0 (417)");

    // An empty answer says nothing, like a missing one.
    Bundle::setMain(std::make_shared<FakeBundle>("", std::map<std::string, std::string>{{"CFBundleVersion", ""}}));
    EXPECT_EQ(AppInfo::bundleIdentifier(), "com.orvell.tavrick");
    EXPECT_EQ(AppInfo::build(), "0");
    Bundle::setMain(nullptr);
}

} // namespace
} // namespace tavrick
