#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/Models.h"
#include "CoreKit/Observable.h"
#include "FanKit/FanHelperClient.h"
#include "FanKit/FanHelperInstaller.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tavrick {

// The application's single owner of the user's fan preset. Main queue only. It turns a choice
// into what the helper is asked, reads back what the helper says it did, and shows every state
// in words; every write to the fans is the helper's.
class FanController {
public:
    static constexpr double approvalPollInterval = 2.0;
    static constexpr double approvalPollLimit = 120.0;
    static constexpr double statusPollInterval = 5.0;
    static constexpr double minimumCallSpacing = 0.25;
    static constexpr double startGrace = 15.0;
    static constexpr double exitWait = 1.5;
    static constexpr double idleDisconnect = 60.0;
    static constexpr double statusSettleInterval = 0.25;
    static constexpr int statusSettleReads = 8;
    static constexpr double reregisterRetries[] = {0.5, 1.0, 2.0};
    static constexpr double statusSettleWindow = 2.0;

    struct State {
        enum class Kind {
            unavailable, needsReinstall, onlyInInstalledApp, notInstalled, needsApproval, ready, starting, boosting,
            unsupportedNeedsFtst, anotherAppControls, tavrickHoldsFans, safeHold
        };
        Kind kind = Kind::notInstalled;
        std::string payload;  // unavailable and needsReinstall
        friend bool operator==(const State&, const State&) = default;
    };
    static std::string title(const State& state);
    static std::string shortTitle(const State& state);
    static std::optional<std::string> explanation(const State& state, FanPreset preset);
    static std::string activityTitle(const State& state, FanPreset preset, bool spinningUp, bool requesting);
    static std::string describe(FanReason reason);

    enum class RefusalStep { helperBundle, fans, install, approval, helperIdentity, reinstall, connection, request, call, helper, interruption };
    static std::string_view rawValue(RefusalStep step);
    struct Refusal {
        RefusalStep step;
        std::string reason;
        friend bool operator==(const Refusal&, const Refusal&) = default;
    };

    struct BoostReconciliation {
        enum class Kind { ended, notAsked, holding };
        Kind kind;
        std::optional<FanReason> reason;  // for ended
        friend bool operator==(const BoostReconciliation&, const BoostReconciliation&) = default;
    };
    static BoostReconciliation reconcile(const std::optional<FanRequest>& asked, const FanHelperReply::Status& status);
    static State helperState(const FanHelperReply::Status& status);
    static std::vector<int> fansTavrickSet(const FanHelperReply::Status& status);
    static bool owesHandBack(const FanHelperReply::Status& status);
    static bool canHandBackAnyway(const FanHelperReply::Status& status);
    static bool isAtLeast(const std::string& a, const std::string& b);
    static State state(HelperServiceStatus status);
    static std::optional<FanRequest> request(FanPreset preset);
    static bool helloDisprovesStatus(const std::optional<std::string>& hello, const std::optional<std::string>& bundled);
    // The release's account, for logs.
    static std::string releaseNote(const FanHelperReply::Status& status);

    struct Environment {
        Scheduler& scheduler;
        DiagnosticLog& log;
        FanHelperInstaller& installer;
        std::optional<FanHelperBundle> bundle;
        std::function<std::shared_ptr<FanHelperService>()> makeClient;
        std::function<std::optional<bool>()> readHasFans;
        std::function<std::optional<bool>()> readManualFans;
    };

    explicit FanController(Environment environment);
    ~FanController();

    void select(FanPreset preset);
    void refresh();
    void handBackFans();
    void handBackFansAnyway();
    // Takes the helper out and puts this copy's in again, unless it still has fans to give back.
    void reinstallHelper();
    // On quit: the helper hands back by itself once this client is gone.
    void dropClient();

    bool isControllingFans() const;
    bool canBoost() const;
    bool canHandBackFans() const;

    const Observable<FanPreset>& preset() const { return preset_; }
    FanPreset lastBoost() const { return lastBoost_; }
    const Observable<State>& state() const { return state_; }
    const Observable<std::optional<std::string>>& notice() const { return notice_; }
    const std::optional<Refusal>& lastRefusal() const { return lastRefusal_; }
    const std::optional<FanHelperReply::Status>& status() const { return status_; }
    bool requesting() const { return requesting_; }

    std::function<void(const std::string& title, const std::optional<std::string>& detail)> onNotice;

private:
    using Done = std::function<void()>;
    void note(const std::string& line);
    void sync();
    void runPass(Done done);
    void requestPass(Done done);
    void withdraw(Done done);
    void ensureInstalled(std::function<void(bool)> next);
    void ensureCurrentHelper(std::function<void(bool)> next);
    void settledStatus(int readsLeft, std::function<void(HelperServiceStatus)> next);
    void awaitApproval(double startedAt);
    void reinstall(bool verifyHandBack, std::function<void(bool)> next);
    void registerAgain(std::size_t attempt, std::function<void(bool)> next);
    void apply(bool retried, Done done);
    void giveUp(RefusalStep step, const std::string& reason, const std::string& title = "Boost did not start");
    void refused(std::optional<FanReason> reason, const FanHelperReply::Status& status);
    void failed(const FanHelperFailure& failure, bool boosting);
    void absorb(const FanHelperReply::Status& status, bool justApplied);
    void releaseFans(bool override, Done done);
    void helperInterrupted(int generation);
    void updatePolling();
    void scheduleDisconnect();
    void paced(std::function<void()> call);
    std::shared_ptr<FanHelperService> connectedClient();
    State currentState() const;
    void setState(State state);
    void tell(const std::string& title, const std::optional<std::string>& detail);

    Environment env_;
    Observable<FanPreset> preset_{FanPreset::automatic};
    FanPreset lastBoost_ = FanPresets::defaultBoost;
    Observable<State> state_;
    Observable<std::optional<std::string>> notice_;
    std::optional<Refusal> lastRefusal_;
    std::optional<FanHelperReply::Status> status_;
    bool requesting_ = false;

    std::shared_ptr<FanHelperService> client_;
    int generation_ = 0;
    bool helperVerified_ = false;
    bool hasRequest_ = false;
    bool sawManualFan_ = false;
    bool registeredThisLaunch_ = false;
    bool reregisteredThisLaunch_ = false;
    bool isUnsupported_ = false;
    std::optional<std::string> reinstallReason_;
    bool needsSync_ = false;
    bool syncRunning_ = false;
    bool withdrewAgain_ = false;
    std::optional<double> pendingSince_;
    std::optional<double> askedAt_;
    double lastCall_ = -1e300;
    Cancellable pollTask_;
    Cancellable approvalTask_;
    Cancellable disconnectTask_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace tavrick
