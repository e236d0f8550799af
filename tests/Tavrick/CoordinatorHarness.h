#pragma once

// Everything a coordinator is made over, as fakes on virtual time: one fixture for every
// coordinator suite, each adjusting the environment to the services it looks at.
#include "CoreKit/Appearance.h"
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Log.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/PreferenceStore.h"
#include "CoreKit/SecretStore.h"
#include "CoreKit/Toast.h"
#include "Platform/Simulated/SimulatedDesktop.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Support/TempDir.h"
#include "Tavrick/AppCoordinator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace tavrick::testing {

// Toasts as "title | detail", a warning marked as such.
struct RecordingPresenter : Toast::Presenter {
    std::vector<std::string> lines;
    void present(const std::string& title, Toast::Kind kind, const std::optional<std::string>& detail) override {
        lines.push_back(std::string(kind == Toast::Kind::warning ? "warning " : "") + title +
                        (detail ? " | " + *detail : ""));
    }
};

// Notifications as "identifier | title | body"; consent and its error are the test's to set.
struct RecordingNotifications : UserNotificationCenter {
    bool grant = true;
    std::optional<std::string> error;
    std::vector<std::string> added;
    void requestAuthorization(int options, AuthorizationReply reply) override {
        EXPECT_EQ(options, 6);
        reply(grant, error);
    }
    void add(const std::string& identifier, const std::string& title, const std::string& body) override {
        added.push_back(identifier + " | " + title + " | " + body);
    }
    // What was added, without the identifiers (new ones are random).
    std::vector<std::string> titlesAndBodies() const {
        std::vector<std::string> out;
        for (const auto& line : added) out.push_back(line.substr(line.find(" | ") + 3));
        return out;
    }
};

// Keep-awake sessions bound to an app find none and watch nothing.
struct NoProcesses : ProcessWatcher {
    std::optional<Instance> find(const std::string&) override { return std::nullopt; }
    std::unique_ptr<Watch> watchExit(const Instance&, std::function<void()>) override { return nullptr; }
};

class CoordinatorHarness : public ::testing::Test {
protected:
    void SetUp() override {
        installTestPlatform(root.path());
        presenter = std::make_shared<RecordingPresenter>();
        Toast::shared().setPresenter(presenter);
        log = DiagnosticLog::make(root / "support", scheduler);
    }
    void TearDown() override {
        coordinator.reset();
        // A failed assertion must not leave a sink or an applier pointing into a finished test.
        Log::setSink(nullptr);
        AppearanceController::setApplier(nullptr);
        Toast::shared().setPresenter(nullptr);
        Toast::shared().setIsEnabled(nullptr);
    }

    // The suite's own services: a touch source, the network's ports, the everyday platform.
    virtual void adjust(AppEnvironment&) {}

    AppEnvironment environment() {
        AppEnvironment environment{
            .scheduler = scheduler,
            .log = *log,
            .events = session,
            .defaults = defaults,
            .workspace = workspace,
            .notifications = notifications,
            .keyboardLayout = nullptr,
            .mappingsFile = root / "mappings.json",
            .permissionSource = PermissionSource{[this] { return accessibility == PermissionState::granted; },
                                                 [this] {
                                                     return inputMonitoring == PermissionState::granted ? 0
                                                            : inputMonitoring == PermissionState::denied ? 1 : 2;
                                                 },
                                                 [this] { ++accessibilityPrompts; },
                                                 [this] {
                                                     ++listenRequests;
                                                     return inputMonitoring == PermissionState::granted;
                                                 },
                                                 [this](const std::string& url) { openedSettings.push_back(url); }},
            .footprint = [this] { return footprint; },
            .version = "1.2.3",
            .build = "45",
            .operatingSystemVersion = "Debian 12",
            .applications = desktop,
            .launcher = desktop,
            .screens = desktop,
            .windowList = desktop,
            .windowAccessibility = desktop,
            .finderDefaults = finderDefaults,
            .home = root.path(),
            .processIdentifier = ownPid,
            .loginItems = LoginItemService{[this] { return loginStatus; }, [] { return std::nullopt; },
                                           [] { return std::nullopt; }, nullptr},
            .secrets = secrets,
        };
        adjust(environment);
        return environment;
    }

    std::shared_ptr<AppCoordinator> make() {
        coordinator = AppCoordinator::make(environment());
        return coordinator;
    }

    // The diagnostic log's lines without their stamps ("yyyy-MM-dd HH:mm:ss.SSS " is 24 characters).
    std::vector<std::string> notes() {
        log->flush();
        std::vector<std::string> lines;
        std::istringstream in(log->contents());
        for (std::string line; std::getline(in, line);) lines.push_back(line.size() > 24 ? line.substr(24) : line);
        return lines;
    }
    bool noted(const std::string& line) {
        auto all = notes();
        return std::find(all.begin(), all.end(), line) != all.end();
    }

    static constexpr std::int32_t ownPid = 777;

    TempDir root;
    ManualScheduler scheduler;
    SimulatedSession session;
    InMemoryPreferenceStore defaults;
    WorkspaceNotifications workspace{scheduler};
    RecordingNotifications notifications;
    SimulatedDesktop desktop;
    InMemoryPreferenceStore finderDefaults;
    InMemorySecretStore secrets;
    std::shared_ptr<DiagnosticLog> log;
    std::shared_ptr<RecordingPresenter> presenter;
    std::shared_ptr<AppCoordinator> coordinator;
    PermissionState accessibility = PermissionState::granted;
    PermissionState inputMonitoring = PermissionState::granted;
    std::optional<std::uint64_t> footprint = 25 * 1024 * 1024;
    int loginStatus = 0;
    int accessibilityPrompts = 0;
    int listenRequests = 0;
    std::vector<std::string> openedSettings;
};

} // namespace tavrick::testing
