// The delegate's window rules on virtual time: which windows bring the program out of the menu
// bar, when it goes back, and the questions the desktop asks about windows and reopening.
#include "CoreKit/ManualScheduler.h"
#include "Support/TempDir.h"
#include "Tavrick/AppDelegate.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

struct RecordingPolicy final : ActivationPolicyPort {
    ActivationPolicy policy = ActivationPolicy::accessory;
    std::vector<std::string> calls;
    ActivationPolicy activationPolicy() const override { return policy; }
    void setActivationPolicy(ActivationPolicy p) override {
        policy = p;
        calls.push_back(p == ActivationPolicy::regular ? "regular" : "accessory");
    }
    void activate() override { calls.push_back("activate"); }
};

class AppDelegateTest : public ::testing::Test {
protected:
    AppDelegateTest() {
        delegate = std::make_unique<AppDelegate>(*log);
        delegate->applicationDidFinishLaunching(scheduler, policy, [this] { return windows->visible(); });
        windows = std::make_unique<AppWindows>(*delegate);
    }
    ~AppDelegateTest() override { AppDelegate::reopenAction() = nullptr; }

    std::vector<std::string> notes() {
        log->flush();
        std::vector<std::string> lines;
        std::istringstream in(log->contents());
        for (std::string line; std::getline(in, line);) lines.push_back(line.size() > 24 ? line.substr(24) : line);
        return lines;
    }

    TempDir root;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(root.path(), scheduler);
    RecordingPolicy policy;
    std::unique_ptr<AppDelegate> delegate;
    std::unique_ptr<AppWindows> windows;
};

const std::string shown = "[window] a window is open — showing in the Dock";
const std::string back = "[window] no windows left — back to the menu bar only";

TEST_F(AppDelegateTest, PolicyFollowsTheDockWorthyWindows) {
    struct Step {
        bool open;
        std::string identifier;
        std::string title;
    };
    struct Case {
        std::string name;
        std::vector<Step> steps;
        ActivationPolicy final;
        std::vector<std::string> notes;
        std::vector<std::string> calls;
    } cases[] = {
        {"the vault alone, opened and closed",
         {{true, WindowIdentifier::vault, "Vault"}, {false, WindowIdentifier::vault, ""}},
         ActivationPolicy::accessory,
         {shown, back},
         {"regular", "activate", "accessory"}},
        {"each of the four counts",
         {{true, WindowIdentifier::settings, "Settings"}},
         ActivationPolicy::regular,
         {shown},
         {"regular", "activate"}},
        {"the welcome", {{true, WindowIdentifier::welcome, "Welcome"}}, ActivationPolicy::regular, {shown}, {"regular", "activate"}},
        {"the notepad", {{true, WindowIdentifier::notepad, "Notepad"}}, ActivationPolicy::regular, {shown}, {"regular", "activate"}},
        {"a second worthy window changes nothing, nor does closing one of two",
         {{true, WindowIdentifier::settings, "Settings"},
          {true, WindowIdentifier::vault, "Vault"},
          {false, WindowIdentifier::settings, ""}},
         ActivationPolicy::regular,
         {shown},
         {"regular", "activate"}},
        {"other windows are named when the last worthy one goes",
         {{true, WindowIdentifier::vault, "Vault"},
          {true, "tavrick-about", "About"},
          {true, "", "Untitled Panel"},
          {false, WindowIdentifier::vault, ""}},
         ActivationPolicy::accessory,
         {shown, "[window] no dock-worthy window among: tavrick-about, Untitled Panel", back},
         {"regular", "activate", "accessory"}},
        {"a window of no worthy kind never brings the program out",
         {{true, "tavrick-about", "About"}, {false, "tavrick-about", ""}},
         ActivationPolicy::accessory,
         {},
         {}},
        {"an identifier only resembling a worthy one does not count",
         {{true, "tavrick-vault-2", "Vault 2"}},
         ActivationPolicy::accessory,
         {},
         {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir caseRoot;
        log = DiagnosticLog::make(caseRoot.path(), scheduler);
        policy = RecordingPolicy{};
        delegate = std::make_unique<AppDelegate>(*log);
        windows = std::make_unique<AppWindows>(*delegate);
        delegate->applicationDidFinishLaunching(scheduler, policy, [this] { return windows->visible(); });
        for (const auto& step : c.steps) {
            if (step.open) {
                windows->show(step.identifier, step.title);
            } else {
                windows->close(step.identifier);
            }
            scheduler.runUntilIdle();
        }
        EXPECT_EQ(policy.policy, c.final);
        EXPECT_EQ(policy.calls, c.calls);
        std::vector<std::string> windowNotes;
        for (const auto& note : notes())
            if (note.rfind("[window]", 0) == 0) windowNotes.push_back(note);
        EXPECT_EQ(windowNotes, c.notes);
    }
}

TEST_F(AppDelegateTest, TheLookWaitsForTheMainQueueSoAClosingWindowIsGoneByThen) {
    windows->show(WindowIdentifier::vault, "Vault");
    EXPECT_EQ(policy.policy, ActivationPolicy::accessory) << "nothing changes inside the notification";
    scheduler.runUntilIdle();
    ASSERT_EQ(policy.policy, ActivationPolicy::regular);
    // The close is announced while the window is still listed; the look after it must not see it.
    windows->close(WindowIdentifier::vault);
    EXPECT_EQ(policy.policy, ActivationPolicy::regular);
    scheduler.runUntilIdle();
    EXPECT_EQ(policy.policy, ActivationPolicy::accessory);
    // Open and closed again before the main queue runs: the looks agree there is nothing open.
    windows->show(WindowIdentifier::settings, "Settings");
    windows->close(WindowIdentifier::settings);
    scheduler.runUntilIdle();
    EXPECT_EQ(policy.policy, ActivationPolicy::accessory);
    EXPECT_EQ(policy.calls, (std::vector<std::string>{"regular", "activate", "accessory"}));
}

TEST_F(AppDelegateTest, ALookPendingWhenTheDelegateGoesDoesNothing) {
    windows->show(WindowIdentifier::vault, "Vault");
    windows.reset();
    delegate.reset();
    scheduler.runUntilIdle();
    EXPECT_TRUE(policy.calls.empty());
}

TEST_F(AppDelegateTest, TheLastWindowClosingNeverEndsTheProgramAndThatIsNotedOnce) {
    EXPECT_FALSE(delegate->applicationShouldTerminateAfterLastWindowClosed());
    windows->show(WindowIdentifier::welcome, "Welcome");
    windows->close(WindowIdentifier::welcome);
    windows->show(WindowIdentifier::vault, "Vault");
    windows->close(WindowIdentifier::vault);
    windows->close(WindowIdentifier::vault);
    scheduler.runUntilIdle();
    const auto all = notes();
    EXPECT_EQ(std::count(all.begin(), all.end(),
                         "[shutdown] asked whether to terminate after the last window closed — refusing (logged once)"),
              1);
}

TEST_F(AppDelegateTest, ReopeningRunsTheActionOnlyWithoutAVisibleWindow) {
    int runs = 0;
    EXPECT_TRUE(delegate->applicationShouldHandleReopen(false)) << "handled even with no action set";
    AppDelegate::reopenAction() = [&runs] { ++runs; };
    EXPECT_TRUE(delegate->applicationShouldHandleReopen(true));
    EXPECT_EQ(runs, 0);
    EXPECT_TRUE(delegate->applicationShouldHandleReopen(false));
    EXPECT_EQ(runs, 1);
}

TEST_F(AppDelegateTest, SyncClosesWhatIsGoneBeforeShowingWhatIsNew) {
    windows->sync({{WindowIdentifier::welcome, "Welcome"}});
    scheduler.runUntilIdle();
    windows->sync({{WindowIdentifier::settings, "Settings"}, {WindowIdentifier::vault, "Vault"}});
    EXPECT_EQ(windows->visible(), (std::vector<AppWindow>{{WindowIdentifier::settings, "Settings"},
                                                          {WindowIdentifier::vault, "Vault"}}));
    windows->sync({{WindowIdentifier::vault, "Vault"}});
    scheduler.runUntilIdle();
    EXPECT_EQ(policy.policy, ActivationPolicy::regular) << "the vault kept it out of the menu bar";
    windows->sync({});
    scheduler.runUntilIdle();
    EXPECT_EQ(policy.policy, ActivationPolicy::accessory);
    EXPECT_EQ(policy.calls, (std::vector<std::string>{"regular", "activate", "accessory"}));
}

TEST(TerminalWindows, TheMenuPositionStandsForTheSettingsAndVaultWindows) {
    struct Case {
        std::vector<std::string> path;
        std::string cursor;
        std::vector<std::string> identifiers;
    } cases[] = {
        {{}, "pomodoro.start", {}},
        {{}, "vault.status", {WindowIdentifier::vault}},
        {{}, "vaultish", {}},
        {{}, "settings", {}},
        {{"settings"}, "settings.menuBarItems", {WindowIdentifier::settings}},
        {{"settings", "settings.backup"}, "settings.backup.file", {WindowIdentifier::settings}},
        {{"vault.entry.1234"}, "vault.entry.1234.password.copy", {WindowIdentifier::vault}},
        {{"vault.add"}, "vault.add.login", {WindowIdentifier::vault}},
        {{"clipboard.more"}, "vault.x", {}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> identifiers;
        for (const auto& w : terminalWindows(c.path, c.cursor)) identifiers.push_back(w.identifier);
        EXPECT_EQ(identifiers, c.identifiers) << c.cursor;
    }
}

TEST(TerminalActivationPolicy, KeepsTheChoiceAndNotesOnlyChanges) {
    TempDir root;
    ManualScheduler scheduler;
    auto log = DiagnosticLog::make(root.path(), scheduler);
    TerminalActivationPolicy policy(*log);
    EXPECT_EQ(policy.activationPolicy(), ActivationPolicy::accessory);
    policy.setActivationPolicy(ActivationPolicy::accessory);
    policy.setActivationPolicy(ActivationPolicy::regular);
    policy.setActivationPolicy(ActivationPolicy::regular);
    policy.setActivationPolicy(ActivationPolicy::accessory);
    EXPECT_EQ(policy.activationPolicy(), ActivationPolicy::accessory);
    log->flush();
    std::istringstream in(log->contents());
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line.substr(24));
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "[window] activation policy regular — there is no Dock here, so this is only noted",
                         "[window] activation policy accessory — the menu alone"}));
}

} // namespace
