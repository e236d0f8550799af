// The menu drawn from the services' state, and the commands it hands back, on virtual time.
#include "Tavrick/MenuHarness.h"
#include "Tavrick/SettingsMenu.h"

#include <gtest/gtest.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

class MenuTest : public MenuHarness {
protected:
    void adjust(AppEnvironment& environment) override {
        MenuHarness::adjust(environment);
        environment.listApplications = [this] { return apps; };
    }
    // The sections in the order drawn, by the first line of each, and the bottom lines.
    std::vector<std::string> topLevelIDs() {
        std::vector<std::string> ids;
        for (const auto& e : menu().snapshot().entries) ids.push_back(e.id);
        return ids;
    }
    std::vector<std::string> sectionOrder() {
        std::vector<std::string> order;
        for (const auto& id : topLevelIDs()) {
            if (id.rfind("separator.", 0) == 0 && id != "separator.bottom") order.push_back(id.substr(10));
        }
        return order;
    }

    std::vector<RunningApplication> apps;
};

class WelcomeTest : public CoordinatorHarness {};

TEST_F(WelcomeTest, TheStartShowsTheWelcomeOnlyUntilItWasCompleted) {
    struct Case {
        std::optional<bool> stored;
        bool installed;
        int expected;
    } cases[] = {{std::nullopt, true, 1}, {false, true, 1}, {true, true, 0}, {std::nullopt, false, 0}};
    for (const auto& c : cases) {
        defaults.remove(AppSettings::Key::hasCompletedWelcome);
        if (c.stored) defaults.set(AppSettings::Key::hasCompletedWelcome, *c.stored);
        auto app = make();
        int shown = 0;
        if (c.installed) app->showWelcome = [&] { ++shown; };
        app->start();
        app->start();  // a second start does nothing
        EXPECT_EQ(shown, c.expected);
        coordinator.reset();
    }
}

TEST_F(MenuTest, SectionsFollowTheStoredOrderAndTheBottomLinesNeverMove) {
    // Every section but the first is opened by a separator named after it.
    std::vector<std::string> expected;
    for (auto section : allCases<MenuBarSection>()) expected.push_back(std::string(rawValue(section)));
    expected.erase(expected.begin());
    EXPECT_EQ(sectionOrder(), expected);
    auto ids = topLevelIDs();
    ASSERT_GE(ids.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(ids.end() - 4, ids.end()),
              (std::vector<std::string>{"separator.bottom", "settings", "updates", "quit"}));
    EXPECT_EQ(title("updates"), "Check for Updates…");
    EXPECT_EQ(title("quit"), "Quit");

    // The layout editor moves pomodoro to the top and hides the vault; the menu follows at once.
    int changes = 0;
    const int token = menu().addChangeObserver([&] { ++changes; });
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(menu().activate("settings.menuBarItems.pomodoro.up"));
    EXPECT_TRUE(menu().activate("settings.menuBarItems.vault.show"));
    EXPECT_GE(changes, 4);
    menu().removeChangeObserver(token);
    EXPECT_EQ(topLevelIDs().front(), "pomodoro.status");
    auto order = sectionOrder();
    EXPECT_EQ(order.front(), "masterToggle");
    EXPECT_EQ(std::count(order.begin(), order.end(), "vault"), 0);
    EXPECT_FALSE(find("vault.status"));
    // At the top, Move Up is greyed out and does nothing.
    EXPECT_FALSE(find("settings.menuBarItems.pomodoro.up")->isEnabled);
    EXPECT_FALSE(menu().activate("settings.menuBarItems.pomodoro.up"));
    EXPECT_EQ(title("settings.menuBarItems.vault"), "(hidden) vault");
    // The stored form is what the next launch reads.
    const auto stored = MenuBarLayout::decode(*defaults.object(AppSettings::Key::menuBarItems)->asData());
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->front().section, MenuBarSection::pomodoro);
    EXPECT_TRUE(noted("[menu] layout saved — hidden: vault"));
}

TEST_F(MenuTest, MovingASectionStopsAtEitherEnd) {
    const auto layout = MenuBarLayout::defaultLayout();
    struct Case {
        MenuBarSection section;
        int offset;
        std::size_t expectedIndex;
    } cases[] = {
        {MenuBarSection::masterToggle, -1, 0}, {MenuBarSection::vault, 1, 10}, {MenuBarSection::pomodoro, -2, 1},
        {MenuBarSection::pomodoro, 100, 10},   {MenuBarSection::fans, -100, 0}, {MenuBarSection::clipboard, 0, 2},
    };
    for (const auto& c : cases) {
        const auto items = SettingsMenu::moved(layout, c.section, c.offset);
        ASSERT_EQ(items.size(), layout.size());
        EXPECT_EQ(items[c.expectedIndex].section, c.section) << rawValue(c.section) << " by " << c.offset;
        EXPECT_EQ(MenuBarLayout::normalized(items), items);
    }
    // A section that is not in the list leaves it as it was.
    const std::vector<MenuBarItem> two{{MenuBarSection::fans, true}, {MenuBarSection::vault, false}};
    EXPECT_EQ(SettingsMenu::moved(two, MenuBarSection::clipboard, -1), two);
}

TEST_F(MenuTest, TheMasterSwitchShowsAPermissionProblemAndActs) {
    accessibility = PermissionState::denied;
    session.setTapCreationAllowed(false);
    EXPECT_EQ(title("master.enabled"), "Shortcuts & Gestures Enabled");
    EXPECT_TRUE(find("master.enabled")->isOn);
    EXPECT_EQ(title("master.error"), "⚠︎ Not active — permission needed");
    EXPECT_EQ(title("master.grant"), "Grant Accessibility…");
    EXPECT_TRUE(menu().activate("master.grant"));
    EXPECT_EQ(accessibilityPrompts, 1);
    EXPECT_TRUE(menu().activate("master.enabled"));
    EXPECT_FALSE(coordinator->isEnabled().get());
    EXPECT_FALSE(find("master.enabled")->isOn);
    // Switched off, the engines are stopped and the error is gone with them.
    EXPECT_FALSE(find("master.error"));
}

TEST_F(MenuTest, ClipboardLinesPinUnpinAndClearWithTheirConfirmations) {
    EXPECT_EQ(title("clipboard.empty"), "Nothing copied yet");
    EXPECT_FALSE(find("clipboard.clear"));
    for (const char* text : {"first copy", "second   copy\nwith a line"}) {
        pasteboard->copy({{Pasteboard::plainTextType, text}});
        scheduler.advance(1);
    }
    const auto entries = menu().snapshot().entries;
    std::vector<std::string> items;
    for (const auto& e : entries) {
        if (e.id.rfind("clipboard.item.", 0) == 0) items.push_back(e.title);
    }
    // Newest first, on one line.
    EXPECT_EQ(items, (std::vector<std::string>{"second copy with a line", "first copy"}));
    const auto newest = coordinator->clipboard().history().get().items().front();
    const std::string id = "clipboard.item." + newest.id.uuidString();

    EXPECT_TRUE(menu().activate(id + ".pin"));
    EXPECT_EQ(title(id), "📌 second copy with a line");
    EXPECT_EQ(title(id + ".pin"), "Unpin");
    EXPECT_TRUE(menu().activate(id + ".pin"));
    EXPECT_TRUE(menu().activate(id + ".pin"));
    EXPECT_TRUE(menu().activate("clipboard.clear"));
    EXPECT_EQ(presenter->lines, (std::vector<std::string>{"Pinned | It will survive Clear History",
                                                          "Unpinned | It can be evicted again",
                                                          "Pinned | It will survive Clear History",
                                                          "Cleared 1 copy, kept 1 pinned | Keeps anything pinned"}));
    // The pinned copy stays; clearing again with only pins says so without the detail.
    ASSERT_EQ(coordinator->clipboard().history().get().items().size(), 1u);
    EXPECT_TRUE(menu().activate(id + ".pin"));
    presenter->lines.clear();
    EXPECT_TRUE(menu().activate("clipboard.clear"));
    EXPECT_EQ(presenter->lines, (std::vector<std::string>{"Cleared 1 copy"}));
    EXPECT_EQ(title("clipboard.empty"), "Nothing copied yet");
    // The line that went away is a stale id now.
    EXPECT_FALSE(menu().activate(id + ".copy"));
}

TEST_F(MenuTest, ThePomodoroLineCountsDownPausesAndResets) {
    struct Step {
        std::string action;
        double advance;
        std::string status;
        std::string button;
    } steps[] = {
        {"", 0, "Pomodoro stopped", "Start"},
        {"pomodoro.toggle", 0, "Focus · 25:00 left", "Pause"},
        {"", 60, "Focus · 24:00 left", "Pause"},
        {"pomodoro.toggle", 30, "Focus · 24:00 left — paused", "Resume"},
        {"pomodoro.toggle", 1, "Focus · 23:59 left", "Pause"},
        {"pomodoro.skip", 0, "Short Break next · 5:00", "Start"},
        {"pomodoro.reset", 0, "Pomodoro stopped", "Start"},
        {"pomodoro.focus.10", 0, "Focus · 10:00 left", "Pause"},
    };
    for (const auto& step : steps) {
        if (!step.action.empty()) {
            EXPECT_TRUE(menu().activate(step.action)) << step.action;
        }
        scheduler.advance(step.advance);
        EXPECT_EQ(title("pomodoro.status"), step.status) << step.action;
        EXPECT_EQ(title("pomodoro.toggle"), step.button) << step.action;
    }
    // Reset is greyed out when there is nothing to reset.
    EXPECT_TRUE(menu().activate("pomodoro.reset"));
    EXPECT_FALSE(find("pomodoro.reset")->isEnabled);
    EXPECT_FALSE(menu().activate("pomodoro.reset"));
}

TEST_F(MenuTest, KeepAwakeSessionsStartFromTheMenuAndEndingOneConfirms) {
    apps = {RunningApplication{.processIdentifier = 42, .bundleIdentifier = "org.mozilla.firefox", .localizedName = "Firefox"},
            RunningApplication{.processIdentifier = 43, .bundleIdentifier = std::nullopt, .localizedName = "nameless"}};
    EXPECT_EQ(title("awake.status"), "Keep Awake is off");
    EXPECT_EQ(title("awake.indefinite"), "Until you turn it off");
    EXPECT_FALSE(find("awake.stop"));
    EXPECT_EQ(find("awake.app")->children.size(), 1u);
    EXPECT_EQ(title("awake.app.org.mozilla.firefox"), "Firefox");

    EXPECT_TRUE(menu().activate("awake.for.900"));
    EXPECT_TRUE(coordinator->awake().isActive().get());
    EXPECT_NE(title("awake.status").find(" · 15:00 left"), std::string::npos) << title("awake.status");
    scheduler.advance(60);
    EXPECT_NE(title("awake.status").find(" · 14:00 left"), std::string::npos) << title("awake.status");
    EXPECT_TRUE(menu().activate("awake.stop"));
    EXPECT_FALSE(coordinator->awake().isActive().get());
    EXPECT_EQ(presenter->lines.back(), "Keep-awake off | The Mac can sleep again");

    // A mode picked with nothing running starts nothing, and the next session takes it.
    EXPECT_TRUE(menu().activate("awake.mode.allowDisplaySleep"));
    EXPECT_FALSE(coordinator->awake().isActive().get());
    EXPECT_TRUE(find("awake.mode.allowDisplaySleep")->isOn);
    EXPECT_TRUE(menu().activate("awake.indefinite"));
    EXPECT_EQ(coordinator->awake().mode().get(), AwakeMode::allowDisplaySleep);
    EXPECT_FALSE(find("awake.mode.keepDisplayOn")->isOn);

    apps.clear();
    const auto none = find("awake.app.none");
    ASSERT_TRUE(none);
    EXPECT_EQ(none->title, "No apps available");
    EXPECT_FALSE(none->isEnabled);
}

TEST_F(MenuTest, TheNetworkSwitchStoresTheChoiceAndTheSectionSaysWhatItKnows) {
    EXPECT_FALSE(find("network.watch")->isOn);
    EXPECT_FALSE(find("network.summary"));
    EXPECT_TRUE(menu().activate("network.watch"));
    EXPECT_TRUE(coordinator->settings().isNetworkMonitorEnabled.get());
    EXPECT_TRUE(find("network.watch")->isOn);
    EXPECT_EQ(title("network.summary"), "Nothing connected");
    EXPECT_EQ(title("network.learning"), "Learning what is normal — not alerting yet");
    EXPECT_TRUE(menu().activate("network.watch"));
    EXPECT_FALSE(coordinator->settings().isNetworkMonitorEnabled.get());
}

TEST_F(MenuTest, NumberSettingsAreClampedOrRefusedWithAClearLine) {
    struct Case {
        std::string id;
        std::string typed;
        bool accepted;
        std::string toast;  // empty for none
    } cases[] = {
        {"settings.clipboardMaximumItems", " 250 ", true, ""},
        {"settings.clipboardMaximumItems", "1000", true, "Clipboard Items Kept set to 500 | It stays in 10…500"},
        {"settings.clipboardMaximumItems", "9", true, "Clipboard Items Kept set to 10 | It stays in 10…500"},
        {"settings.clipboardMaximumItems", "99999999999999999999", true, "Clipboard Items Kept set to 500 | It stays in 10…500"},
        {"settings.clipboardMaximumItems", "12abc", false, "warning Clipboard Items Kept was not changed | “12abc” is not a whole number"},
        {"settings.clipboardMaximumItems", "", false, "warning Clipboard Items Kept was not changed | “” is not a whole number"},
        {"settings.networkSampleSeconds", "0", true, "Network Sample Seconds set to 1 | It stays in 1…60"},
        {"settings.servePort", "65536", false, "warning Serve on Port was not changed | It takes a number in 1…65535"},
        {"settings.servePort", "8080", true, ""},
        {"settings.vaultLockSeconds", "-5", false, "warning Vault Locks After (seconds) was not changed | It takes a number in 0…86400"},
    };
    for (const auto& c : cases) {
        presenter->lines.clear();
        const auto before = find(c.id)->value;
        EXPECT_EQ(menu().submit(c.id, c.typed), c.accepted) << c.id << " " << c.typed;
        EXPECT_EQ(presenter->lines, c.toast.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.toast})
            << c.typed;
        if (!c.accepted) {
            EXPECT_EQ(find(c.id)->value, before) << "a refused value changed the setting";
        }
    }
    EXPECT_EQ(coordinator->settings().clipboardMaximumItems.get(), 500);
    EXPECT_EQ(coordinator->settings().servePort.get(), 8080);
    EXPECT_EQ(coordinator->settings().vaultLockSeconds.get(), 300);
    // What the settings took is what the clipboard keeps.
    EXPECT_EQ(coordinator->clipboard().policy().get().maximumItems, 500);
    EXPECT_FALSE(menu().submit("settings.nothing", "1"));
}

TEST_F(MenuTest, ChoicesTogglesAndTextsWriteTheSettings) {
    EXPECT_EQ(title("settings.menuBarReadout"), "Menu Bar Readout: Nothing");
    EXPECT_TRUE(menu().activate("settings.menuBarReadout.chipTemperature"));
    EXPECT_EQ(coordinator->settings().menuBarReadout.get(), MenuBarReadout::chipTemperature);
    EXPECT_TRUE(find("settings.menuBarReadout.chipTemperature")->isOn);
    EXPECT_FALSE(find("settings.menuBarReadout.off")->isOn);
    EXPECT_TRUE(menu().activate("settings.showConfirmations"));
    EXPECT_FALSE(coordinator->settings().showConfirmations.get());
    EXPECT_TRUE(menu().submit("settings.networkMutedApps", " /usr/bin/curl, ,/bin/wget,/usr/bin/curl"));
    EXPECT_EQ(coordinator->settings().networkMutedApps.get(), (std::vector<std::string>{"/usr/bin/curl", "/bin/wget"}));
    EXPECT_EQ(find("settings.networkMutedApps")->value, "/usr/bin/curl, /bin/wget");
    EXPECT_TRUE(menu().submit("settings.translateInto", "  French "));
    EXPECT_EQ(coordinator->settings().translateInto.get(), "French");
    // Values this build only carries are shown, never offered for editing.
    EXPECT_EQ(find("settings.searchEngine")->kind, MenuEntry::Kind::label);
    EXPECT_FALSE(menu().activate("settings.searchEngine"));
}

TEST_F(MenuTest, EveryStoredPreferenceHasALineInSettings) {
    for (const char* key : AppSettings::backedUpKeys) {
        EXPECT_TRUE(find(std::string("settings.") + key)) << key << " is missing from Settings";
    }
}

TEST_F(MenuTest, TheLabelCarriesTheChosenReadout) {
    const FanReading fan{.index = 0, .actual = 2412, .minimum = 1200, .maximum = 6000, .target = 0, .mode = std::nullopt};
    struct Case {
        MenuBarIconStyle style;
        MenuBarReadout readout;
        std::vector<FanReading> fans;
        std::optional<double> hottest;
        std::string expected;
    } cases[] = {
        {MenuBarIconStyle::tavrick, MenuBarReadout::off, {fan}, 61.0, "MenuBarGlyph"},
        {MenuBarIconStyle::tavrick, MenuBarReadout::chipTemperature, {}, 61.4, "MenuBarGlyph    61°"},
        {MenuBarIconStyle::tavrick, MenuBarReadout::chipTemperature, {}, std::nullopt, "MenuBarGlyph      –"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(MenuBarLabel::text(c.style, c.readout, c.fans, c.hottest), c.expected);
    }
    const auto withFans = MenuBarLabel::text(MenuBarIconStyle::tavrick, MenuBarReadout::fanSpeed, {fan}, 61.0);
    EXPECT_EQ(withFans, "MenuBarGlyph  " + FanFormat::readout({fan}, 61.0));
    EXPECT_NE(MenuBarLabel::text(MenuBarIconStyle::gestures, MenuBarReadout::off, {}, {}), "MenuBarGlyph");
}

TEST_F(MenuTest, FansWithoutFanControlSayUnavailableAndUnknownIDsAreIgnored) {
    EXPECT_EQ(title("fans.speed"), "Speed  unavailable");
    EXPECT_FALSE(find("fans.preset.max"));
    EXPECT_FALSE(menu().activate("fans.preset.max"));
    EXPECT_FALSE(menu().activate(""));
    EXPECT_FALSE(menu().activate("pomodoro.status"));  // a label does nothing
    EXPECT_FALSE(menu().submit("quit", "x"));
    // Opening and closing the menu twice counts one watcher, and closing gives it back.
    menu().menuWillOpen();
    menu().menuWillOpen();
    EXPECT_EQ(coordinator->monitor().watchers(), 1);
    menu().menuDidClose();
    EXPECT_EQ(coordinator->monitor().watchers(), 0);
}

} // namespace

TEST_F(MenuTest, TheVaultSectionCreatesAddsCopiesAndLocksThroughThePanel) {
    EXPECT_EQ(title("vault.status"), "No vault on this Mac yet");
    // A short passphrase or two that differ never reach the vault.
    EXPECT_FALSE(menu().submit("vault.create.passphrase", "short"));
    EXPECT_EQ(presenter->lines.back(), "warning Eight characters minimum");
    EXPECT_TRUE(menu().submit("vault.create.passphrase", "long enough"));
    EXPECT_TRUE(find("vault.create.repeat")->isSecret);
    EXPECT_FALSE(menu().submit("vault.create.repeat", "long enougH"));
    EXPECT_TRUE(find("vault.create.passphrase")) << "a mismatch starts over";
    EXPECT_FALSE(coordinator->vault().exists());

    // Without a passphrase: created and open at once.
    EXPECT_TRUE(menu().activate("vault.ask"));
    EXPECT_TRUE(menu().activate("vault.create"));
    scheduler.runUntilIdle();
    EXPECT_EQ(title("vault.status"), "Unlocked, nothing stored yet");
    EXPECT_TRUE(menu().activate("vault.add.apiKey"));
    EXPECT_FALSE(find("vault.editor.confirm")->isEnabled) << "a blank draft cannot be added";
    EXPECT_TRUE(menu().submit("vault.editor.name", "Deploy"));
    EXPECT_TRUE(menu().submit("vault.editor.key", "sk-test-0123456789"));
    EXPECT_TRUE(menu().activate("vault.editor.confirm"));
    EXPECT_FALSE(find("vault.editor"));
    EXPECT_EQ(title("vault.status"), "Unlocked, 1 entry");

    const std::string base = "vault.entry." + coordinator->vault().items.get().front().id.uuidString();
    EXPECT_EQ(title(base + ".key").find("sk-test"), std::string::npos) << "masked until revealed";
    EXPECT_TRUE(menu().activate(base + ".key.reveal"));
    EXPECT_EQ(title(base + ".key"), "Key: sk-test-0123456789");
    scheduler.advance(30);
    EXPECT_EQ(title(base + ".key").find("sk-test"), std::string::npos) << "the reveal ran out";
    EXPECT_TRUE(menu().activate(base + ".key.copy"));
    EXPECT_EQ(pasteboard->string(), "sk-test-0123456789");
    EXPECT_EQ(presenter->lines.back(), "Copied \u2014 the pasteboard clears in 45s, and the history skipped it.");

    EXPECT_TRUE(menu().activate("vault.lock"));
    EXPECT_EQ(title("vault.status"), "Locked");
    EXPECT_TRUE(find("vault.show")) << "an unprotected vault is only hidden";
    for (const auto& line : notes()) EXPECT_EQ(line.find("sk-test"), std::string::npos) << line;
}

TEST_F(MenuTest, TheProvidersKeyIsStoredFromSettingsAndNeverShownOrLogged) {
    menu();
    coordinator->settings().aiProvider.set("gemini");
    EXPECT_EQ(title("settings.aiKey.none"), "No key yet. Ask AI and Translate will say so rather than failing quietly.");
    ASSERT_TRUE(find("settings.aiKey"));
    EXPECT_TRUE(find("settings.aiKey")->isSecret);
    EXPECT_TRUE(menu().submit("settings.aiKey", "  gm-secret-123  "));
    EXPECT_EQ(coordinator->keychain().get("api-key-gemini"), "gm-secret-123");
    EXPECT_EQ(find("settings.aiKey")->value, "(stored)");
    EXPECT_FALSE(find("settings.aiKey.none"));

    secrets.setFailure(SecretStatus::ioFailure);
    EXPECT_FALSE(menu().submit("settings.aiKey", "gm-other"));
    EXPECT_EQ(presenter->lines.back(), "warning The key could not be saved to the keychain.");
    secrets.setFailure(std::nullopt);
    EXPECT_EQ(coordinator->keychain().get("api-key-gemini"), "gm-secret-123");

    EXPECT_TRUE(menu().submit("settings.aiKey", ""));
    EXPECT_EQ(coordinator->keychain().get("api-key-gemini"), std::nullopt);
    for (const auto& line : notes()) EXPECT_EQ(line.find("gm-"), std::string::npos) << line;
}
