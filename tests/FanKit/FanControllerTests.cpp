#include "FanKit/FanController.h"

#include "CoreKit/ManualScheduler.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>

using namespace tavrick;
namespace Reply = FanHelperReply;
using Kind = FanController::State::Kind;

namespace {

Reply::Status status(bool controlling, std::optional<FanRequest> request = std::nullopt,
                     std::optional<FanReason> reason = std::nullopt, std::vector<std::optional<int>> modes = {0, 0},
                     std::optional<std::vector<int>> setBy = std::vector<int>{}) {
    Reply::Status s;
    s.controlling = controlling;
    s.state = controlling ? Reply::Status::State::boosting : Reply::Status::State::idle;
    s.request = request;
    s.reason = reason;
    for (std::size_t i = 0; i < modes.size(); ++i) s.fans.push_back({static_cast<int>(i), 2000, 1200, 6000, 2000, modes[i]});
    s.setByTavrick = setBy;
    s.sensorCount = 6;
    return s;
}

} // namespace

TEST(FanControllerLogicTest, Reconcile) {
    using R = FanController::BoostReconciliation::Kind;
    const FanRequest half{0.5, false};
    struct Row { const char* name; std::optional<FanRequest> asked; Reply::Status status; R kind; std::optional<FanReason> reason; };
    auto held = status(true, FanRequest{1.0, false}, std::nullopt, {1, 1}, std::nullopt);
    auto safe = status(false);
    safe.safeHold = true;
    std::vector<Row> rows{
        {"nothing asked", std::nullopt, status(true, half), R::notAsked, std::nullopt},
        {"a higher request of another client counts", half, held, R::holding, std::nullopt},
        {"a lower request", half, status(true, FanRequest{0.25, false}, FanReason::sleeping), R::ended, FanReason::sleeping},
        {"max at level one without isMax", FanRequest::max(), status(true, FanRequest{1.0, false}), R::ended, std::nullopt},
        {"safe hold", half, safe, R::ended, FanReason::safeHold},
        {"not controlling", half, status(false, half, FanReason::fanFault), R::ended, FanReason::fanFault},
        {"no request in the status", half, status(true), R::ended, std::nullopt},
        {"set nothing", half, status(true, half, std::nullopt, {1, 1}, std::vector<int>{}), R::ended, std::nullopt},
        {"holding with a reason", half, status(true, half, FanReason::reclaiming, {1, 1}, std::nullopt), R::ended, FanReason::reclaiming},
    };
    for (const auto& row : rows) {
        auto verdict = FanController::reconcile(row.asked, row.status);
        EXPECT_EQ(verdict.kind, row.kind) << row.name;
        EXPECT_EQ(verdict.reason, row.reason) << row.name;
    }
}

TEST(FanControllerLogicTest, HelperStateAndWhoSetTheFans) {
    EXPECT_EQ(FanController::helperState(status(false, std::nullopt, std::nullopt, {0, 1}, std::vector<int>{})).kind, Kind::anotherAppControls);
    EXPECT_EQ(FanController::helperState(status(false, std::nullopt, std::nullopt, {1, 0}, std::vector<int>{0})).kind, Kind::tavrickHoldsFans);
    EXPECT_EQ(FanController::helperState(status(false, std::nullopt, std::nullopt, {1, 0}, std::nullopt)).kind, Kind::anotherAppControls);
    EXPECT_EQ(FanController::helperState(status(true)).kind, Kind::boosting);
    EXPECT_EQ(FanController::helperState(status(false, std::nullopt, FanReason::unsupported)).kind, Kind::unsupportedNeedsFtst);
    EXPECT_EQ(FanController::helperState(status(false)).kind, Kind::ready);
    auto empty = status(false, std::nullopt, std::nullopt, {}, std::vector<int>{1});
    EXPECT_TRUE(FanController::owesHandBack(empty));  // an empty list of fans proves nothing
    EXPECT_FALSE(FanController::owesHandBack(status(false)));
    EXPECT_TRUE(FanController::canHandBackAnyway(status(false, std::nullopt, std::nullopt, {0, 1})));
    EXPECT_FALSE(FanController::canHandBackAnyway(status(false, std::nullopt, std::nullopt, {0, 1}, std::vector<int>{1})));
}

TEST(FanControllerLogicTest, BuildComparison) {
    struct Row { const char* a; const char* b; bool atLeast; };
    for (auto r : std::vector<Row>{{"1.10", "1.9", true}, {"1.2", "1.2.0", true}, {"1.2", "1.3", false},
                                   {"a", "a", true}, {"a", "b", false}, {"2", "10", false}, {"1..2", "1", false}}) {
        EXPECT_EQ(FanController::isAtLeast(r.a, r.b), r.atLeast) << r.a << " " << r.b;
    }
}

TEST(FanControllerLogicTest, Words) {
    using S = FanController::State;
    EXPECT_EQ(FanController::title({Kind::unsupportedNeedsFtst, {}}), "Not supported on this Mac yet");
    EXPECT_EQ(FanController::shortTitle({Kind::onlyInInstalledApp, {}}), "Installed app only");
    EXPECT_EQ(FanController::activityTitle(S{Kind::ready, {}}, FanPreset::automatic, false, false), "Auto");
    EXPECT_EQ(FanController::activityTitle(S{Kind::safeHold, {}}, FanPreset::automatic, false, false), "Holding the fans safe");
    EXPECT_EQ(FanController::activityTitle(S{Kind::ready, {}}, FanPreset::boost50, false, true), "50%, starting…");
    EXPECT_EQ(FanController::activityTitle(S{Kind::ready, {}}, FanPreset::boost50, false, false), "50%, not boosting");
    EXPECT_EQ(FanController::activityTitle(S{Kind::boosting, {}}, FanPreset::max, true, false), "Max, spinning up…");
    EXPECT_EQ(FanController::activityTitle(S{Kind::boosting, {}}, FanPreset::boost25, false, false), "25%");
    EXPECT_EQ(*FanController::explanation({Kind::ready, {}}, FanPreset::automatic),
              "The fans change hands at most once every 10 seconds, and are taken again a few seconds after the Mac "
              "wakes, so a boost can take a moment to start.");
    EXPECT_TRUE(FanController::explanation({Kind::needsApproval, {}}, FanPreset::max)->ends_with(
        "(under App Background Activity, or Allow in the Background on older macOS). Boost starts as soon as it is allowed."));
    EXPECT_TRUE(FanController::explanation({Kind::safeHold, {}}, FanPreset::max)->ends_with("tries again every 10 seconds…"));
    EXPECT_FALSE(FanController::explanation({Kind::boosting, {}}, FanPreset::max));
    EXPECT_EQ(FanController::describe(FanReason::systemReclaimed),
              "macOS is taking the fans back. It does that when it disagrees with the speed that was asked for. Tavrick "
              "asked for them again 3 times and macOS took them back each time, so the boost ended and the fans are macOS's.");
    EXPECT_EQ(FanController::state(HelperServiceStatus::unknown).payload,
              "macOS reported a state for the fan helper that this version does not know.");
    EXPECT_EQ(FanController::request(FanPreset::toggleBoost), std::nullopt);
    EXPECT_FALSE(FanController::helloDisprovesStatus(std::nullopt, std::nullopt));
    EXPECT_TRUE(FanController::helloDisprovesStatus(std::string("a"), std::string("a")));
    auto s = status(false);
    EXPECT_EQ(FanController::releaseNote(s), "nothing recorded since this fan helper last took the fans");
    s.reason = FanReason::fanFault;
    s.lastRelease = FanRelease{FanReason::anotherWriter, 0, {0, 1}, {{0, 2000, 1990, 0}}, 2};
    EXPECT_TRUE(FanController::releaseNote(s).starts_with(
        "anotherWriter, status says fanFault; fan 0, 1; taken back from macOS 2× first; fan 0 target 2000 actual 1990 mode 0; by the helper's clock at "));
}

// MARK: The controller's passes against a scripted helper, on virtual time

namespace {

class FakeInstaller : public FanHelperInstaller {
public:
    HelperServiceStatus current = HelperServiceStatus::notRegistered;
    HelperServiceStatus afterRegister = HelperServiceStatus::enabled;
    int registrations = 0;
    int unregistrations = 0;
    int failRegistrations = 0;
    HelperServiceStatus status() override { return current; }
    void registerHelper() override {
        ++registrations;
        if (failRegistrations > 0) {
            --failRegistrations;
            throw std::runtime_error("The unit file could not be written.");
        }
        current = afterRegister;
    }
    void unregister(std::function<void(std::optional<std::string>)> done) override {
        ++unregistrations;
        current = HelperServiceStatus::notRegistered;
        done(std::nullopt);
    }
    void openLoginItems() override {}
};

// Answers each call from a script, or holds it until the test lets it go.
class FakeHelper : public FanHelperService {
public:
    Scheduler& scheduler;
    explicit FakeHelper(Scheduler& s) : scheduler(s) {}
    std::string cdhash;
    std::deque<FanHelperOutcome<Reply::ApplyResult>> applies;
    FanHelperOutcome<Reply::Status> handBackAnswer = ::status(false);
    FanHelperOutcome<Reply::Status> statusAnswer = ::status(false);
    std::vector<std::string> calls;
    bool holdApply = false;
    std::function<void()> heldApply;
    bool invalidated = false;

    // Records the call and answers on the scheduler, as a real connection would.
    template <class T>
    void answer(std::string name, std::function<void(FanHelperOutcome<T>)> done, FanHelperOutcome<T> a) {
        calls.push_back(std::move(name));
        scheduler.async([done, a] { done(a); });
    }
    void hello(double, std::function<void(FanHelperOutcome<Reply::Hello>)> done) override {
        answer<Reply::Hello>("hello", done, Reply::Hello{1, cdhash, "1"});
    }
    void status(std::function<void(FanHelperOutcome<Reply::Status>)> done) override { answer("status", done, statusAnswer); }
    void apply(const FanRequest& r, std::function<void(FanHelperOutcome<Reply::ApplyResult>)> done) override {
        calls.push_back("apply " + std::to_string(r.level));
        auto answer = applies.empty() ? FanHelperOutcome<Reply::ApplyResult>(Reply::ApplyResult{true, std::nullopt, ::status(true, r, std::nullopt, {1, 1}, std::vector<int>{0, 1})})
                                      : applies.front();
        if (!applies.empty()) applies.pop_front();
        auto deliver = [this, done, answer] { scheduler.async([done, answer] { done(answer); }); };
        if (holdApply) heldApply = deliver;
        else deliver();
    }
    void handBack(std::function<void(FanHelperOutcome<Reply::Status>)> done) override { answer("handBack", done, handBackAnswer); }
    void releaseFans(std::function<void(FanHelperOutcome<Reply::ReleaseResult>)> done) override {
        answer<Reply::ReleaseResult>("releaseFans", done, Reply::ReleaseResult{true, {0}, std::nullopt, ::status(false), std::nullopt});
    }
    void releaseUnrecordedFans(std::function<void(FanHelperOutcome<Reply::ReleaseResult>)> done) override {
        answer<Reply::ReleaseResult>("releaseUnrecordedFans", done,
                                     Reply::ReleaseResult{true, {1}, std::nullopt, ::status(false), std::vector<int>{1}});
    }
    void exitForUpdate(std::function<void(FanHelperOutcome<Reply::Status>)> done) override {
        answer<Reply::Status>("exitForUpdate", done, ::status(false));
    }
    void invalidate() override { invalidated = true; }
};

struct Rig {
    tavrick::testing::TempDir dir;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(dir.path(), scheduler);
    FakeInstaller installer;
    std::shared_ptr<FakeHelper> helper = std::make_shared<FakeHelper>(scheduler);
    std::vector<std::pair<std::string, std::optional<std::string>>> notices;
    std::unique_ptr<FanController> controller;
    int clientsMade = 0;

    explicit Rig(bool withBundle = true) {
        tavrick::testing::writeFile(dir / "helper", "helper bytes");
        std::optional<FanHelperBundle> bundle;
        if (withBundle) bundle = FanHelperBundle{"req", (dir / "helper").string(), "1"};
        helper->cdhash = bundle ? *bundle->bundledHash() : "";
        controller = std::make_unique<FanController>(FanController::Environment{
            scheduler, *log, installer, bundle, [this] { ++clientsMade; return helper; },
            [] { return std::optional<bool>(true); }, [] { return std::optional<bool>(false); }});
        controller->onNotice = [this](const std::string& t, const std::optional<std::string>& d) { notices.push_back({t, d}); };
    }
    void settle(double seconds = 1) { scheduler.advance(seconds); }
};

} // namespace

TEST(FanControllerTest, ABoostInstallsVerifiesAppliesAndAutoHandsBack) {
    Rig rig;
    rig.controller->select(FanPreset::boost50);
    EXPECT_EQ(rig.controller->state().get().kind, Kind::starting);
    rig.settle(3);
    EXPECT_EQ(rig.installer.registrations, 1);
    EXPECT_EQ(rig.helper->calls, (std::vector<std::string>{"hello", "apply 0.500000"}));
    EXPECT_EQ(rig.controller->state().get().kind, Kind::boosting);
    EXPECT_EQ(rig.controller->preset().get(), FanPreset::boost50);
    EXPECT_TRUE(rig.controller->isControllingFans());
    EXPECT_TRUE(rig.notices.empty());
    rig.controller->select(FanPreset::automatic);
    rig.settle(1);
    EXPECT_EQ(rig.helper->calls.back(), "handBack");
    EXPECT_EQ(rig.controller->state().get().kind, Kind::ready);
    // Toggle goes back to the boost step chosen last.
    rig.controller->select(FanPreset::toggleBoost);
    EXPECT_EQ(rig.controller->preset().get(), FanPreset::boost50);
}

TEST(FanControllerTest, RefusalsAndEndsAreToldInTheirWords) {
    {
        Rig rig(false);
        rig.controller->select(FanPreset::max);
        EXPECT_EQ(rig.controller->preset().get(), FanPreset::automatic);
        ASSERT_EQ(rig.notices.size(), 1u);
        EXPECT_EQ(rig.notices[0].first, "Boost is only in the installed app");
        EXPECT_EQ(rig.clientsMade, 0);
    }
    {
        Rig rig;
        rig.helper->applies.push_back(Reply::ApplyResult{false, FanReason::anotherApp, status(false, std::nullopt, std::nullopt, {0, 1})});
        rig.helper->handBackAnswer = status(false, std::nullopt, std::nullopt, {0, 1});
        rig.controller->select(FanPreset::boost25);
        rig.settle(3);
        EXPECT_EQ(rig.controller->preset().get(), FanPreset::automatic);
        ASSERT_FALSE(rig.notices.empty());
        EXPECT_EQ(rig.notices[0], (std::pair<std::string, std::optional<std::string>>{"Boost did not start", "Another app has the fans under manual control."}));
        EXPECT_EQ(rig.controller->state().get().kind, Kind::anotherAppControls);
        EXPECT_EQ(rig.controller->lastRefusal()->step, FanController::RefusalStep::helper);
    }
    {
        // A boost the helper ends on its own shows up at the next poll.
        Rig rig;
        rig.controller->select(FanPreset::max);
        rig.settle(3);
        ASSERT_EQ(rig.controller->state().get().kind, Kind::boosting);
        rig.helper->statusAnswer = status(false, std::nullopt, FanReason::fanFault);
        rig.settle(6);
        EXPECT_EQ(rig.controller->preset().get(), FanPreset::automatic);
        ASSERT_FALSE(rig.notices.empty());
        EXPECT_EQ(rig.notices.back().first, "Tavrick's boost is off");
        EXPECT_EQ(rig.notices.back().second, "A fan stayed well below the speed it was set to, so the fans went back to macOS.");
    }
    {
        Rig rig;
        rig.helper->applies.push_back(FanHelperFailure::of(FanHelperFailure::Kind::refused));
        rig.controller->select(FanPreset::max);
        rig.settle(3);
        EXPECT_EQ(rig.controller->state().get().kind, Kind::needsReinstall);
        EXPECT_TRUE(rig.helper->invalidated);
        EXPECT_EQ(rig.notices.back().second, "The fan helper on this Mac did not accept this copy of Tavrick.");
    }
    {
        // A timeout gets one more try on a new connection.
        Rig rig;
        rig.helper->applies.push_back(FanHelperFailure::of(FanHelperFailure::Kind::timedOut));
        rig.controller->select(FanPreset::max);
        rig.settle(3);
        EXPECT_EQ(rig.clientsMade, 2);
        EXPECT_EQ(rig.controller->state().get().kind, Kind::boosting);
    }
}

TEST(FanControllerTest, AStartWithinTheGraceShowsStartingThenEnds) {
    Rig rig;
    rig.helper->applies.push_back(Reply::ApplyResult{true, std::nullopt, status(false, FanRequest{0.5, false})});
    rig.helper->statusAnswer = status(false, FanRequest{0.5, false});
    rig.controller->select(FanPreset::boost50);
    rig.settle(3);
    EXPECT_EQ(rig.controller->state().get().kind, Kind::starting);
    rig.settle(10);
    EXPECT_EQ(rig.controller->state().get().kind, Kind::starting);
    EXPECT_TRUE(rig.notices.empty());
    rig.settle(10);
    EXPECT_EQ(rig.controller->preset().get(), FanPreset::automatic);
    EXPECT_EQ(rig.notices.back(), (std::pair<std::string, std::optional<std::string>>{"Boost did not start", "The fan helper did not take the fans."}));
}

TEST(FanControllerTest, AnInterruptionMidBoostHandsBackInWords) {
    Rig rig;
    rig.controller->select(FanPreset::max);
    rig.settle(3);
    ASSERT_EQ(rig.controller->state().get().kind, Kind::boosting);
    rig.helper->onInterruption();
    rig.settle(3);
    EXPECT_EQ(rig.controller->preset().get(), FanPreset::automatic);
    EXPECT_EQ(rig.notices.back(), (std::pair<std::string, std::optional<std::string>>{
                                      "Fans back to automatic", "The fan helper stopped unexpectedly and handed the fans back to macOS."}));
    EXPECT_EQ(rig.controller->lastRefusal()->step, FanController::RefusalStep::interruption);
}

TEST(FanControllerTest, ApprovalIsAwaitedThenGivenUp) {
    Rig rig;
    rig.installer.afterRegister = HelperServiceStatus::requiresApproval;
    rig.controller->select(FanPreset::boost50);
    rig.settle(3);
    EXPECT_EQ(rig.controller->state().get().kind, Kind::needsApproval);
    EXPECT_EQ(rig.notices.back().first, "Allow Tavrick in Login Items");
    rig.settle(121);
    EXPECT_EQ(rig.controller->preset().get(), FanPreset::automatic);
    EXPECT_EQ(rig.notices.back(), (std::pair<std::string, std::optional<std::string>>{
                                      "Fans left on automatic", "Boost was waiting for approval in Login Items. Choose it again once Tavrick is allowed."}));
    // Allowed in time, the boost starts by itself.
    Rig allowed;
    allowed.installer.afterRegister = HelperServiceStatus::requiresApproval;
    allowed.controller->select(FanPreset::boost50);
    allowed.settle(3);
    allowed.installer.current = HelperServiceStatus::enabled;
    allowed.helper->statusAnswer = status(true, FanRequest{0.5, false}, std::nullopt, {1, 1}, std::vector<int>{0, 1});
    allowed.settle(5);
    EXPECT_EQ(allowed.controller->state().get().kind, Kind::boosting);
}

TEST(FanControllerTest, RepeatedChoicesRunOnePassAtATimeAndTheLastWins) {
    Rig rig;
    rig.installer.current = HelperServiceStatus::enabled;
    rig.helper->holdApply = true;
    rig.helper->statusAnswer = status(true, FanRequest::max(), std::nullopt, {1, 1}, std::vector<int>{0, 1});
    rig.controller->select(FanPreset::boost25);
    rig.settle(1);
    rig.controller->select(FanPreset::boost50);
    rig.controller->select(FanPreset::max);
    rig.settle(1);
    EXPECT_EQ(std::count_if(rig.helper->calls.begin(), rig.helper->calls.end(), [](auto& c) { return c.starts_with("apply"); }), 1);
    rig.helper->holdApply = false;
    rig.helper->heldApply();
    rig.settle(2);
    EXPECT_EQ(rig.helper->calls.back(), "apply 1.000000");
    EXPECT_EQ(rig.controller->preset().get(), FanPreset::max);
}

TEST(FanControllerTest, HandBackAnyway) {
    Rig rig;
    rig.installer.current = HelperServiceStatus::enabled;
    rig.controller->handBackFansAnyway();
    rig.settle(1);
    EXPECT_EQ(rig.helper->calls.back(), "releaseUnrecordedFans");
    EXPECT_EQ(rig.notices.back(), (std::pair<std::string, std::optional<std::string>>{
                                      "Fans back to automatic",
                                      "Tavrick handed the fans back to macOS. If another app is still running, it may set them again."}));
}

TEST(FanControllerTest, ReinstallingLeavesAHelperThatHoldsFansAndRetriesRegistering) {
    {
        Rig rig;
        rig.installer.current = HelperServiceStatus::enabled;
        rig.helper->statusAnswer = status(true, FanRequest::max(), std::nullopt, {1, 1}, std::vector<int>{0, 1});
        rig.controller->reinstallHelper();
        rig.settle(1);
        EXPECT_EQ(rig.installer.unregistrations, 0);
        EXPECT_EQ(rig.notices.back(), (std::pair<std::string, std::optional<std::string>>{
                                          "The fan helper was left in place",
                                          "The fan helper is holding the fans, so it was left in place. Try again once it has handed them back."}));
    }
    {
        Rig rig;
        rig.installer.current = HelperServiceStatus::enabled;
        rig.installer.failRegistrations = 2;
        rig.controller->reinstallHelper();
        rig.settle(0.4);
        EXPECT_EQ(rig.installer.registrations, 1);
        rig.settle(0.2);
        EXPECT_EQ(rig.installer.registrations, 2);  // 0.5 s after the first try
        rig.settle(1.0);
        EXPECT_EQ(rig.installer.registrations, 3);  // then 1.0 s
        EXPECT_EQ(rig.installer.current, HelperServiceStatus::enabled);
        EXPECT_TRUE(rig.notices.empty());
        EXPECT_EQ(rig.controller->state().get().kind, Kind::ready);
    }
    {
        Rig rig;
        rig.installer.current = HelperServiceStatus::enabled;
        rig.installer.failRegistrations = 4;
        rig.controller->reinstallHelper();
        rig.settle(5);
        EXPECT_EQ(rig.installer.registrations, 4);  // the first, then one after each wait
        EXPECT_EQ(rig.notices.back().second, "macOS did not reinstall the fan helper: The unit file could not be written.");
    }
}
