#include "NetKit/FilterController.h"
#include "NetFakes.h"
#include "Support/LogCapture.h"

#include <gtest/gtest.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

struct FakeFilterSystem : FilterSystem {
    std::optional<std::filesystem::path> bundled = std::filesystem::path("/Applications/Tavrick.app/x");
    std::string path = "/Applications/Tavrick.app";
    Preferences preferences;
    std::optional<std::string> loadError;
    std::optional<std::string> saveError;
    std::vector<std::string> requests;
    std::optional<std::filesystem::path> bundledExtension() override { return bundled; }
    std::string bundlePath() override { return path; }
    void submitActivation(std::string_view id) override { requests.push_back("activate " + std::string(id)); }
    void submitDeactivation(std::string_view id) override { requests.push_back("deactivate " + std::string(id)); }
    void loadPreferences(PreferencesReply reply) override { reply(preferences, loadError); }
    void enableFilter(SaveReply reply) override {
        requests.push_back("enable");
        if (!saveError) preferences = {true, true};
        reply(saveError);
    }
};

using Kind = FilterController::State::Kind;

struct FilterTest : LoggedTest {
    std::shared_ptr<FakeFilterSystem> system = std::make_shared<FakeFilterSystem>();
    std::unique_ptr<FilterController> make() { return std::make_unique<FilterController>(system, log.get()); }
};

} // namespace

TEST_F(FilterTest, OnLinuxThereIsNoFilterAndTheControllerSaysSo) {
    FilterController filter(std::make_shared<AbsentFilterSystem>("/usr/local/bin"), log.get());
    EXPECT_FALSE(filter.isAvailable());
    filter.refresh();
    EXPECT_EQ(filter.state().get().kind, Kind::notInBundle);
    EXPECT_EQ(filter.state().get().title(), "Not in this copy of Tavrick");
    EXPECT_EQ(filter.state().get().explanation(),
              "The system extension that sees the whole Mac is only in builds signed with a provisioning profile. "
              "Without it, connections are read from the kernel's process table instead, which reaches only programs "
              "running as you.");
    LogCapture capture;
    filter.install();
    EXPECT_EQ(filter.state().get().kind, Kind::notInBundle);
    ASSERT_TRUE(filter.refusal().get());
    EXPECT_EQ(filter.refusal().get()->step, FilterController::RefusalStep::bundle);
    EXPECT_EQ(filter.refusal().get()->detail, "This copy of Tavrick does not contain the network filter.");
    EXPECT_TRUE(capture.contains("network", "Network filter refused at no extension in this copy: This copy of Tavrick "
                                            "does not contain the network filter."));
    EXPECT_EQ(notes(), (std::vector<std::string>{"[netfilter] refused no extension in this copy"}));
}

TEST_F(FilterTest, OutsideApplicationsByPathPrefix) {
    for (const char* path : {"/Users/me/Applications/Tavrick.app", "/ApplicationsX/Tavrick.app", "/Applications"}) {
        system->path = path;
        auto filter = make();
        filter->install();
        EXPECT_EQ(filter->state().get().kind, Kind::notInApplications) << path;
        EXPECT_EQ(filter->refusal().get()->detail,
                  "macOS only installs a network filter from an app in /Applications. Move Tavrick there and try again.");
        EXPECT_TRUE(system->requests.empty());
        filter->refresh();
        EXPECT_EQ(filter->state().get().title(), "Tavrick must be in /Applications");
    }
}

TEST_F(FilterTest, InstallAsksForApprovalThenEnablesTheFilter) {
    auto filter = make();
    filter->refresh();
    EXPECT_EQ(filter->state().get().kind, Kind::notInstalled);
    filter->install();
    EXPECT_EQ(system->requests, (std::vector<std::string>{"activate com.orvell.tavrick.netfilter"}));
    EXPECT_TRUE(filter->replacesExistingExtension());
    filter->requestNeedsUserApproval();
    EXPECT_EQ(filter->state().get().kind, Kind::needsApproval);
    // While the request waits, a refresh does not forget it.
    filter->refresh();
    EXPECT_EQ(filter->state().get().kind, Kind::needsApproval);
    filter->requestDidFinish(FilterController::RequestResult::completed);
    EXPECT_EQ(filter->state().get().kind, Kind::ready);
    EXPECT_EQ(filter->state().get().title(), "Watching every connection on this Mac");
    EXPECT_EQ(notes(), (std::vector<std::string>{"[netfilter] activation requested",
                                                       "[netfilter] waiting for approval in System Settings",
                                                       "[netfilter] extension installed"}));
}

TEST_F(FilterTest, RefreshReadsTheFilterPreferences) {
    auto filter = make();
    system->preferences = {true, false};
    filter->refresh();
    EXPECT_EQ(filter->state().get().kind, Kind::needsFilterApproval);
    EXPECT_EQ(filter->state().get().explanation(),
              "Allow Tavrick to filter network content when macOS asks, or in Network › Filters.");
    system->preferences = {true, true};
    filter->refresh();
    EXPECT_EQ(filter->state().get().kind, Kind::ready);
    system->preferences = {false, true};
    filter->refresh();
    EXPECT_EQ(filter->state().get().kind, Kind::notInstalled);
}

TEST_F(FilterTest, RequestOutcomesAndErrorCodes) {
    auto filter = make();
    filter->requestDidFinish(FilterController::RequestResult::willCompleteAfterReboot);
    EXPECT_EQ(filter->state().get(), FilterController::State::failed("Installed. It starts after the Mac restarts."));
    EXPECT_EQ(filter->state().get().explanation(),
              "Installed. It starts after the Mac restarts. The diagnostic log has the whole message.");
    filter->requestDidFinish(FilterController::RequestResult::unknown);
    EXPECT_EQ(filter->state().get().message, "macOS reported an outcome this build does not know.");

    const std::pair<int, const char*> codes[] = {
        {2, "This build is not signed with the entitlement the filter needs."},
        {3, "macOS installs a network filter only from an app in /Applications."},
        {4, "The extension inside this copy of Tavrick could not be found."},
        {8, "The extension's signature was rejected."},
        {10, "A system policy on this Mac forbids installing it."},
        {11, "The request was cancelled."},
        {12, "A newer request replaced this one."},
        {13, "macOS needs an administrator to allow it."},
        {1, "The operation couldn’t be completed. (OSSystemExtensionErrorDomain error 1.)"},
        {9, "Code nine."},
    };
    for (auto [code, text] : codes) {
        filter->requestDidFail(code, code == 1 ? codes[8].second : "Code nine.");
        EXPECT_EQ(filter->state().get(), FilterController::State::failed(text)) << code;
        EXPECT_EQ(filter->refusal().get()->step, FilterController::RefusalStep::request);
    }
    EXPECT_EQ(notes().back(), "[netfilter] refused the activation request");
}

TEST_F(FilterTest, AFailingConfigurationIsRefusedAtThatStepAndRemoveRefreshes) {
    system->saveError = "The configuration is invalid.";
    auto filter = make();
    filter->requestDidFinish(FilterController::RequestResult::completed);
    EXPECT_EQ(filter->state().get(), FilterController::State::failed("The configuration is invalid."));
    EXPECT_EQ(filter->refusal().get()->step, FilterController::RefusalStep::configuration);
    system->preferences = {true, true};
    filter->remove();
    EXPECT_EQ(system->requests, (std::vector<std::string>{"enable", "deactivate com.orvell.tavrick.netfilter"}));
    EXPECT_EQ(notes().back(), "[netfilter] deactivation requested");
    EXPECT_EQ(filter->state().get().kind, Kind::ready);
}

