#include "FanKit/FanController.h"

#include "CoreKit/Log.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <ctime>
#include <sstream>
#include <utility>

namespace tavrick {

namespace Reply = FanHelperReply;
using Kind = FanController::State::Kind;

namespace {
const char* approvalSwitch =
    "System Settings › General › Login Items & Extensions (under App Background Activity, or Allow in the Background on older macOS)";

template <class T>
const FanHelperFailure* failureOf(const FanHelperOutcome<T>& outcome) {
    return std::get_if<FanHelperFailure>(&outcome);
}

std::string fanList(const std::vector<int>& fans) {
    std::string out;
    for (int f : fans) {
        if (!out.empty()) out += ", ";
        out += std::to_string(f);
    }
    return out;
}
} // namespace

// MARK: Words

std::string FanController::title(const State& s) {
    switch (s.kind) {
    case Kind::unavailable: return "Unavailable";
    case Kind::needsReinstall: return "Needs reinstalling";
    case Kind::onlyInInstalledApp: return "Only in the installed app";
    case Kind::notInstalled: return "Not installed";
    case Kind::needsApproval: return "Waiting for approval";
    case Kind::ready: return "Ready";
    case Kind::starting: return "Starting";
    case Kind::boosting: return "Boosting";
    case Kind::unsupportedNeedsFtst: return "Not supported on this Mac yet";
    case Kind::anotherAppControls: return "Another app controls the fans";
    case Kind::tavrickHoldsFans: return "Tavrick still has the fans";
    case Kind::safeHold: return "Holding the fans safe";
    }
    return {};
}

std::string FanController::shortTitle(const State& s) {
    switch (s.kind) {
    case Kind::onlyInInstalledApp: return "Installed app only";
    case Kind::unsupportedNeedsFtst: return "Not supported here";
    default: return title(s);
    }
}

std::optional<std::string> FanController::explanation(const State& s, FanPreset preset) {
    switch (s.kind) {
    case Kind::unavailable:
    case Kind::needsReinstall: return s.payload;
    case Kind::onlyInInstalledApp:
        return "Boost runs through Tavrick's fan helper, which only a Developer ID copy of Tavrick carries and trusts. "
               "Readings work in every build.";
    case Kind::notInstalled:
        return "Choosing Boost 25%, Boost 50% or Max installs Tavrick's fan helper, which macOS asks you to allow once, "
               "in its own alert or in System Settings › General › Login Items & Extensions.";
    case Kind::needsApproval: {
        std::string first = std::string("Allow Tavrick when macOS asks, or switch it on in ") + approvalSwitch;
        if (preset == FanPreset::automatic) return first + ", then choose Boost 25%, Boost 50% or Max.";
        return first + ". Boost starts as soon as it is allowed.";
    }
    case Kind::ready:
        return "The fans change hands at most once every " + std::to_string(static_cast<int>(FanPolicy::modeSwitchSpacing)) +
               " seconds, and are taken again a few seconds after the Mac wakes, so a boost can take a moment to start.";
    case Kind::unsupportedNeedsFtst:
        return "This Mac's fan controller does not accept manual control the way Tavrick asks for it. Some Macs, such as "
               "M3 and M4 Pro and Max, only accept it after an unlock step that also switches off part of macOS's own "
               "thermal management, so Tavrick does not boost here yet. The readings still work.";
    case Kind::anotherAppControls:
        return "A fan is under manual control, and Tavrick's record of the fans it set has no entry for it, so another "
               "app put it there. Tavrick never takes fans from another app, and never hands them back for it either: "
               "set that app's fans to automatic, then choose Boost 25%, Boost 50% or Max again. If there is no such app "
               "left — an older Tavrick, or a fan app you have removed — choose Hand Back Anyway…";
    case Kind::tavrickHoldsFans:
        return "Tavrick's fan helper set these fans to manual and has not handed them back — a boost that ended without "
               "finishing, or a helper that was stopped. Choose Hand the Fans Back to macOS, or Auto, and it will park "
               "them on its safety curve and give them back.";
    case Kind::safeHold:
        return "The helper could not hand the fans back to macOS, so it is holding them on its safety curve, which "
               "follows the chip's temperature, and tries again every " +
               std::to_string(static_cast<int>(FanPolicy::safeHoldRetry)) + " seconds…";
    case Kind::starting:
    case Kind::boosting: return std::nullopt;
    }
    return std::nullopt;
}

std::string FanController::activityTitle(const State& s, FanPreset preset, bool spinningUp, bool requesting) {
    if (preset == FanPreset::automatic) {
        if (s.kind == Kind::notInstalled || s.kind == Kind::ready || s.kind == Kind::starting) return "Auto";
        return shortTitle(s);
    }
    const std::string label(tavrick::shortTitle(preset));
    if (s.kind == Kind::starting) return label + ", starting…";
    if ((s.kind == Kind::notInstalled || s.kind == Kind::ready) && requesting) return label + ", starting…";
    if (s.kind == Kind::ready) return label + ", not boosting";
    if (s.kind == Kind::boosting) return spinningUp ? label + ", spinning up…" : label;
    return shortTitle(s);
}

std::string FanController::describe(FanReason reason) {
    switch (reason) {
    case FanReason::noTemperature: return "The chip's temperature could not be read, and Tavrick never boosts without it.";
    case FanReason::tooFewSensors: return "Too few of the chip's temperature sensors answered to boost safely.";
    case FanReason::sensorsLost: return "Most of the chip's temperature sensors stopped answering, so the fans went back to macOS.";
    case FanReason::staleTemperature: return "The chip's temperature stopped updating, so the fans went back to macOS.";
    case FanReason::systemReclaimed:
        return "macOS is taking the fans back. It does that when it disagrees with the speed that was asked for. Tavrick "
               "asked for them again " +
               std::to_string(FanPolicy::reclaimReassertions) +
               " times and macOS took them back each time, so the boost ended and the fans are macOS's.";
    case FanReason::anotherWriter:
        return "Another app started setting the fans, so Tavrick ended the boost and handed every fan it had set back to macOS.";
    case FanReason::fanFault: return "A fan stayed well below the speed it was set to, so the fans went back to macOS.";
    case FanReason::unsupported: return "Boost is not supported on this Mac yet.";
    case FanReason::invalidLimits: return "The fans reported a speed range Tavrick does not trust.";
    case FanReason::fanless: return "This Mac has no fans.";
    case FanReason::anotherApp: return "Another app has the fans under manual control.";
    case FanReason::reclaiming:
        return "Tavrick's fan helper still had these fans in manual mode from an earlier boost, and is handing them back "
               "to macOS before anything else.";
    case FanReason::sleeping: return "The Mac is going to sleep. The boost resumes after it wakes.";
    case FanReason::invalidRequest: return "The fan helper did not understand the request.";
    case FanReason::safeHold: return "The fan helper is holding the fans on its safety curve after a failed hand-back.";
    case FanReason::smcFailed: return "The fan controller did not accept a command, so the fans went back to macOS.";
    case FanReason::journalFailed: return "The fan helper could not write its record of the boost, so it left the fans alone.";
    case FanReason::exiting: return "The fan helper is restarting. Try again in a moment.";
    case FanReason::unknown: return "The fan helper gave a reason this version of Tavrick does not know.";
    }
    return {};
}

std::string_view FanController::rawValue(RefusalStep step) {
    switch (step) {
    case RefusalStep::helperBundle: return "helperBundle";
    case RefusalStep::fans: return "fans";
    case RefusalStep::install: return "install";
    case RefusalStep::approval: return "approval";
    case RefusalStep::helperIdentity: return "helperIdentity";
    case RefusalStep::reinstall: return "reinstall";
    case RefusalStep::connection: return "connection";
    case RefusalStep::request: return "request";
    case RefusalStep::call: return "call";
    case RefusalStep::helper: return "helper";
    case RefusalStep::interruption: return "interruption";
    }
    return {};
}

namespace {
// The step in words, as the log says it.
std::string stepWords(FanController::RefusalStep step) {
    using S = FanController::RefusalStep;
    switch (step) {
    case S::helperBundle: return "helper bundle";
    case S::fans: return "fans";
    case S::approval: return "approval";
    case S::connection: return "connection";
    case S::request: return "request";
    case S::reinstall: return "reinstall";
    case S::helper: return "helper";
    default: return std::string(FanController::rawValue(step));
    }
}
} // namespace

// MARK: Judgements

std::vector<int> FanController::fansTavrickSet(const Reply::Status& status) {
    std::vector<int> out;
    for (const auto& f : status.fans) {
        if (f.mode != 1) continue;
        if (status.setByTavrick) {
            if (std::find(status.setByTavrick->begin(), status.setByTavrick->end(), f.index) != status.setByTavrick->end()) out.push_back(f.index);
        } else if (status.controlling) {
            out.push_back(f.index);
        }
    }
    return out;
}

bool FanController::owesHandBack(const Reply::Status& status) {
    if (status.controlling) return true;
    if (!fansTavrickSet(status).empty()) return true;
    if (!status.fans.empty()) return false;
    return status.setByTavrick && !status.setByTavrick->empty();
}

bool FanController::canHandBackAnyway(const Reply::Status& status) {
    return fansTavrickSet(status).empty() &&
           std::any_of(status.fans.begin(), status.fans.end(), [](const FanReading& f) { return f.mode == 1; });
}

FanController::State FanController::helperState(const Reply::Status& status) {
    if (status.safeHold || status.state == Reply::Status::State::safeHold) return {Kind::safeHold, {}};
    if (status.controlling) return {Kind::boosting, {}};
    if (status.reason == FanReason::unsupported) return {Kind::unsupportedNeedsFtst, {}};
    if (std::any_of(status.fans.begin(), status.fans.end(), [](const FanReading& f) { return f.mode == 1; })) {
        return fansTavrickSet(status).empty() ? State{Kind::anotherAppControls, {}} : State{Kind::tavrickHoldsFans, {}};
    }
    return {Kind::ready, {}};
}

FanController::BoostReconciliation FanController::reconcile(const std::optional<FanRequest>& asked, const Reply::Status& status) {
    using R = BoostReconciliation;
    if (!asked) return {R::Kind::notAsked, std::nullopt};
    if (status.safeHold || status.state == Reply::Status::State::safeHold) {
        return {R::Kind::ended, status.reason.value_or(FanReason::safeHold)};
    }
    if (!status.controlling || !status.request || *status.request < *asked ||
        (status.setByTavrick && status.setByTavrick->empty())) {
        return {R::Kind::ended, status.reason};
    }
    if (!status.reason) return {R::Kind::holding, std::nullopt};
    return {R::Kind::ended, status.reason};
}

bool FanController::isAtLeast(const std::string& a, const std::string& b) {
    auto split = [](const std::string& text) -> std::optional<std::vector<long long>> {
        std::vector<long long> parts;
        std::stringstream stream(text);
        std::string part;
        while (std::getline(stream, part, '.')) {
            if (part.empty() || part.find_first_not_of("0123456789") != std::string::npos || part.size() > 17) return std::nullopt;
            parts.push_back(std::stoll(part));
        }
        if (parts.empty() || (!text.empty() && text.back() == '.')) return std::nullopt;
        return parts;
    };
    auto pa = split(a);
    auto pb = split(b);
    if (!pa || !pb) return a == b;
    const std::size_t n = std::max(pa->size(), pb->size());
    for (std::size_t i = 0; i < n; ++i) {
        const long long x = i < pa->size() ? (*pa)[i] : 0;
        const long long y = i < pb->size() ? (*pb)[i] : 0;
        if (x != y) return x > y;
    }
    return true;
}

FanController::State FanController::state(HelperServiceStatus status) {
    switch (status) {
    case HelperServiceStatus::notRegistered:
    case HelperServiceStatus::notFound: return {Kind::notInstalled, {}};
    case HelperServiceStatus::enabled: return {Kind::ready, {}};
    case HelperServiceStatus::requiresApproval: return {Kind::needsApproval, {}};
    case HelperServiceStatus::unknown: break;
    }
    return {Kind::unavailable, "macOS reported a state for the fan helper that this version does not know."};
}

std::optional<FanRequest> FanController::request(FanPreset preset) {
    switch (preset) {
    case FanPreset::boost25: return FanRequest{0.25, false};
    case FanPreset::boost50: return FanRequest{0.5, false};
    case FanPreset::max: return FanRequest::max();
    default: return std::nullopt;
    }
}

bool FanController::helloDisprovesStatus(const std::optional<std::string>& hello, const std::optional<std::string>& bundled) {
    return hello && bundled && *hello == *bundled;
}

std::string FanController::releaseNote(const Reply::Status& status) {
    if (!status.lastRelease) return "nothing recorded since this fan helper last took the fans";
    const auto& r = *status.lastRelease;
    std::string out = r.reasonName();
    if (status.reason && status.reason != r.reason) out += ", status says " + std::string(tavrick::rawValue(*status.reason));
    out += "; fan " + fanList(r.fans);
    if (r.reassertions > 0) out += "; taken back from macOS " + std::to_string(r.reassertions) + "× first";
    if (!r.readings.empty()) out += "; " + r.readingsSummary();
    std::time_t at = static_cast<std::time_t>(r.at);
    std::tm local{};
    localtime_r(&at, &local);
    char stamp[64];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    out += "; by the helper's clock at " + std::string(stamp);
    return out;
}

// MARK: The controller

FanController::FanController(Environment environment) : env_(std::move(environment)) {
    state_.set(env_.bundle ? State{Kind::notInstalled, {}} : State{Kind::onlyInInstalledApp, {}});
}

FanController::~FanController() {
    *alive_ = false;
    pollTask_.cancel();
    approvalTask_.cancel();
    disconnectTask_.cancel();
    if (client_) client_->invalidate();
}

void FanController::note(const std::string& line) { env_.log.note("fans", line); }

void FanController::setState(State state) {
    if (state.kind == Kind::unsupportedNeedsFtst) isUnsupported_ = true;
    state_.set(std::move(state));
}

void FanController::tell(const std::string& title, const std::optional<std::string>& detail) {
    notice_.set(detail ? detail : std::optional<std::string>(title));
    if (onNotice) onNotice(title, detail);
}

bool FanController::isControllingFans() const {
    return state_.get().kind == Kind::boosting || state_.get().kind == Kind::safeHold;
}

bool FanController::canBoost() const {
    auto k = state_.get().kind;
    return k != Kind::onlyInInstalledApp && k != Kind::unsupportedNeedsFtst && k != Kind::safeHold;
}

bool FanController::canHandBackFans() const {
    if (status_) return !fansTavrickSet(*status_).empty();
    return state_.get().kind == Kind::ready && sawManualFan_;
}

FanController::State FanController::currentState() const {
    if (!env_.bundle) return {Kind::onlyInInstalledApp, {}};
    auto s = state(env_.installer.status());
    if (s.kind == Kind::ready) {
        if (isUnsupported_) return {Kind::unsupportedNeedsFtst, {}};
        if (reinstallReason_) return {Kind::needsReinstall, *reinstallReason_};
        if (status_) return helperState(*status_);
    }
    return s;
}

void FanController::select(FanPreset choice) {
    const FanPreset resolvedPreset = resolved(choice, preset_.get(), lastBoost_);
    if (isBoostStep(resolvedPreset)) lastBoost_ = resolvedPreset;
    preset_.set(resolvedPreset);
    notice_.set(std::nullopt);
    lastRefusal_.reset();
    pendingSince_.reset();
    if (!env_.bundle && resolvedPreset != FanPreset::automatic) {
        tell("Boost is only in the installed app", explanation({Kind::onlyInInstalledApp, {}}, resolvedPreset));
        preset_.set(FanPreset::automatic);
        return;
    }
    sync();
}

void FanController::sync() {
    needsSync_ = true;
    if (syncRunning_) return;
    syncRunning_ = true;
    std::weak_ptr<bool> alive = alive_;
    auto loop = std::make_shared<std::function<void()>>();
    std::weak_ptr<std::function<void()>> weakLoop = loop;
    // The loop holds itself only weakly; each pass's completion holds it until it runs.
    *loop = [this, alive, weakLoop] {
        auto self = weakLoop.lock();
        if (!alive.lock() || !self) return;
        if (!needsSync_) {
            syncRunning_ = false;
            updatePolling();
            return;
        }
        needsSync_ = false;
        runPass([this, alive, self] {
            if (!alive.lock()) return;
            // Each pass finishes before the next starts; the last choice wins.
            env_.scheduler.async([self] { (*self)(); });
        });
    };
    (*loop)();
}

void FanController::runPass(Done done) {
    if (preset_.get() == FanPreset::automatic) {
        withdraw(std::move(done));
    } else {
        requestPass(std::move(done));
    }
}

void FanController::giveUp(RefusalStep step, const std::string& reason, const std::string& titleText) {
    lastRefusal_ = Refusal{step, reason};
    note("boost did not start — " + stepWords(step) + ": " + reason);
    preset_.set(FanPreset::automatic);
    requesting_ = false;
    setState(currentState());
    tell(titleText, reason);
}

void FanController::requestPass(Done done) {
    setState({Kind::starting, {}});
    requesting_ = true;
    if (env_.readHasFans && env_.readHasFans() == false) {
        giveUp(RefusalStep::fans, "This Mac has no fans.");
        done();
        return;
    }
    std::weak_ptr<bool> alive = alive_;
    ensureInstalled([this, alive, done](bool ok) {
        if (!alive.lock()) return;
        if (!ok) {
            requesting_ = false;
            done();
            return;
        }
        ensureCurrentHelper([this, alive, done](bool current) {
            if (!alive.lock()) return;
            if (!current) {
                requesting_ = false;
                done();
                return;
            }
            apply(false, done);
        });
    });
}

void FanController::apply(bool retried, Done done) {
    auto client = connectedClient();
    if (!client) {
        giveUp(RefusalStep::connection, "Tavrick could not open a connection to its fan helper.");
        done();
        return;
    }
    auto wanted = request(preset_.get());
    if (!wanted) {
        giveUp(RefusalStep::request, "Tavrick could not work out what to ask its fan helper for " +
                                         std::string(displayName(preset_.get())));
        done();
        return;
    }
    note("asked the fan helper for " + std::string(displayName(preset_.get())));
    askedAt_ = env_.scheduler.clock().now();
    hasRequest_ = true;
    std::weak_ptr<bool> alive = alive_;
    const int generation = generation_;
    paced([this, alive, client, wanted, retried, done, generation] {
        if (!alive.lock()) return;
        client->apply(*wanted, [this, alive, retried, done, generation](FanHelperOutcome<Reply::ApplyResult> outcome) {
            if (!alive.lock()) return;
            requesting_ = false;
            if (auto* failure = failureOf(outcome)) {
                const bool retryable = failure->kind == FanHelperFailure::Kind::timedOut ||
                                       failure->kind == FanHelperFailure::Kind::interrupted;
                if (retryable && !retried && generation == generation_) {
                    // One more try, on a new connection.
                    dropClient();
                    apply(true, done);
                    return;
                }
                failed(*failure, false);
                done();
                return;
            }
            const auto& result = std::get<Reply::ApplyResult>(outcome);
            if (!result.accepted) {
                refused(result.reason, result.status);
            } else {
                absorb(result.status, true);
            }
            done();
        });
    });
}

void FanController::settledStatus(int readsLeft, std::function<void(HelperServiceStatus)> next) {
    auto status = env_.installer.status();
    const bool settled = status == HelperServiceStatus::enabled || status == HelperServiceStatus::requiresApproval;
    if (settled || readsLeft <= 1) {
        next(status);
        return;
    }
    std::weak_ptr<bool> alive = alive_;
    env_.scheduler.after(statusSettleInterval, [this, alive, readsLeft, next] {
        if (alive.lock()) settledStatus(readsLeft - 1, next);
    });
}

void FanController::ensureInstalled(std::function<void(bool)> next) {
    std::weak_ptr<bool> alive = alive_;
    settledStatus(statusSettleReads, [this, alive, next](HelperServiceStatus status) {
        if (!alive.lock()) return;
        if (status == HelperServiceStatus::enabled) {
            next(true);
            return;
        }
        if (status == HelperServiceStatus::requiresApproval) {
            setState({Kind::needsApproval, {}});
            lastRefusal_ = Refusal{RefusalStep::approval, "Boost starts as soon as the fan helper is allowed."};
            tell("Allow Tavrick in Login Items", std::string("Boost starts as soon as the fan helper is allowed."));
            awaitApproval(env_.scheduler.clock().monotonic());
            next(false);
            return;
        }
        if (status != HelperServiceStatus::notRegistered && status != HelperServiceStatus::notFound) {
            giveUp(RefusalStep::install, *explanation(state(status), preset_.get()));
            next(false);
            return;
        }
        if (registeredThisLaunch_) {
            giveUp(RefusalStep::install,
                   "Tavrick installed the fan helper earlier in this session and macOS no longer has a record of it. "
                   "Reinstall it from this copy, or quit and reopen Tavrick.");
            next(false);
            return;
        }
        try {
            env_.installer.registerHelper();
        } catch (const std::exception& error) {
            const std::string why = *error.what() ? error.what() : "macOS did not say why.";
            giveUp(RefusalStep::install, "macOS did not install the fan helper: " + why);
            next(false);
            return;
        }
        registeredThisLaunch_ = true;
        auto now = env_.installer.status();
        note("registered the fan helper — now " + title(state(now)));
        if (now == HelperServiceStatus::enabled) {
            next(true);
        } else if (now == HelperServiceStatus::requiresApproval) {
            setState({Kind::needsApproval, {}});
            tell("Allow Tavrick in Login Items", std::string("Boost starts as soon as the fan helper is allowed."));
            awaitApproval(env_.scheduler.clock().monotonic());
            next(false);
        } else {
            note("Registering the fan helper left it unknown to macOS: it did not say why");
            giveUp(RefusalStep::install,
                   "macOS did not accept the fan helper from this copy of Tavrick (it did not say why). If it was just "
                   "updated or moved, quit and reopen it. Otherwise make sure Tavrick is in your Applications folder.");
            next(false);
        }
    });
}

void FanController::awaitApproval(double startedAt) {
    approvalTask_.cancel();
    std::weak_ptr<bool> alive = alive_;
    auto last = std::make_shared<HelperServiceStatus>(env_.installer.status());
    approvalTask_ = env_.scheduler.every(approvalPollInterval, [this, alive, startedAt, last] {
        if (!alive.lock()) return;
        auto now = env_.installer.status();
        if (now != *last) {
            *last = now;
            note("fan helper approval changed — now " + title(state(now)));
        }
        if (now == HelperServiceStatus::enabled) {
            approvalTask_.cancel();
            sync();
        } else if (env_.scheduler.clock().monotonic() - startedAt >= approvalPollLimit) {
            approvalTask_.cancel();
            preset_.set(FanPreset::automatic);
            note("boost did not start — approval");
            tell("Fans left on automatic",
                 std::string("Boost was waiting for approval in Login Items. Choose it again once Tavrick is allowed."));
        }
    });
}

void FanController::ensureCurrentHelper(std::function<void(bool)> next) {
    if (helperVerified_) {
        next(true);
        return;
    }
    auto client = connectedClient();
    if (!client) {
        giveUp(RefusalStep::connection, "Tavrick could not open a connection to its fan helper.");
        next(false);
        return;
    }
    auto bundled = env_.bundle ? env_.bundle->bundledHash() : std::nullopt;
    if (!bundled) {
        giveUp(RefusalStep::helperIdentity, "The fan helper inside this copy of Tavrick could not be read.");
        next(false);
        return;
    }
    std::weak_ptr<bool> alive = alive_;
    client->hello(FanHelperClient::respawnDeadline, [this, alive, client, bundled, next](FanHelperOutcome<Reply::Hello> outcome) {
        if (!alive.lock()) return;
        if (auto* failure = failureOf(outcome)) {
            failed(*failure, false);
            next(false);
            return;
        }
        const auto& hello = std::get<Reply::Hello>(outcome);
        if (hello.cdhash == bundled) {
            helperVerified_ = true;
            reinstallReason_.reset();
            next(true);
            return;
        }
        note("the running fan helper (build " + hello.build + ") is not this copy's; asking it to step aside");
        if (isAtLeast(hello.build, env_.bundle->appBuild) && hello.build != env_.bundle->appBuild) {
            giveUp(RefusalStep::helperIdentity, "The fan helper on this Mac came with a later version of Tavrick (build " +
                                                    hello.build + "). Use that version, or reinstall the helper from this one.");
            next(false);
            return;
        }
        client->exitForUpdate([this, alive, bundled, next](FanHelperOutcome<Reply::Status> stepped) {
            if (!alive.lock()) return;
            if (auto* status = std::get_if<Reply::Status>(&stepped); status && owesHandBack(*status)) {
                absorb(*status, false);
                next(false);
                return;
            }
            dropClient();
            env_.scheduler.after(exitWait, [this, alive, bundled, next] {
                if (!alive.lock()) return;
                auto fresh = connectedClient();
                fresh->hello(FanHelperClient::respawnDeadline, [this, alive, bundled, next](FanHelperOutcome<Reply::Hello> again) {
                    if (!alive.lock()) return;
                    if (failureOf(again)) {
                        giveUp(RefusalStep::helperIdentity, "The fan helper did not come back after stepping aside for this "
                                                            "copy of Tavrick. Reinstall it from this one.");
                        next(false);
                    } else if (std::get<Reply::Hello>(again).cdhash == bundled) {
                        helperVerified_ = true;
                        next(true);
                    } else if (reregisteredThisLaunch_) {
                        giveUp(RefusalStep::helperIdentity,
                               "The fan helper macOS starts belongs to another copy of Tavrick. Reinstall it from this one.");
                        next(false);
                    } else {
                        // Once: put this copy's helper in place and ask again.
                        reinstall(true, [this, alive, bundled, next](bool reinstalled) {
                            if (!alive.lock()) return;
                            if (!reinstalled) {
                                next(false);
                                return;
                            }
                            connectedClient()->hello(FanHelperClient::respawnDeadline,
                                                     [this, alive, bundled, next](FanHelperOutcome<Reply::Hello> last) {
                                if (!alive.lock()) return;
                                if (auto* h = std::get_if<Reply::Hello>(&last); h && h->cdhash == bundled) {
                                    helperVerified_ = true;
                                    next(true);
                                    return;
                                }
                                giveUp(RefusalStep::reinstall, "The fan helper is still not this copy's after reinstalling it. "
                                                               "Quit other copies of Tavrick, then reinstall it again.");
                                next(false);
                            });
                        });
                    }
                });
            });
        });
    });
}

void FanController::reinstallHelper() {
    reinstall(true, [](bool) {});
}

void FanController::reinstall(bool verifyHandBack, std::function<void(bool)> next) {
    std::weak_ptr<bool> alive = alive_;
    auto leftInPlace = [this](const std::string& text) {
        note("boost did not start — reinstall");
        note("fan helper left in place — " + text);
        lastRefusal_ = Refusal{RefusalStep::reinstall, text};
        tell("The fan helper was left in place", text);
    };
    auto proceed = [this, alive, next] {
        if (!alive.lock()) return;
        dropClient();
        env_.installer.unregister([this, alive, next](std::optional<std::string> error) {
            if (!alive.lock()) return;
            if (error) note("Unregistering the fan helper: " + *error);
            registerAgain(0, next);
        });
    };
    if (!verifyHandBack) {
        proceed();
        return;
    }
    auto client = connectedClient();
    if (!client) {
        proceed();
        return;
    }
    client->status([this, alive, leftInPlace, proceed, next](FanHelperOutcome<Reply::Status> outcome) {
        if (!alive.lock()) return;
        if (failureOf(outcome)) {
            leftInPlace("The fan helper did not say whether it had handed the fans back, so it was left in place.");
            next(false);
            return;
        }
        const auto& status = std::get<Reply::Status>(outcome);
        if (owesHandBack(status)) {
            leftInPlace(status.controlling
                            ? "The fan helper is holding the fans, so it was left in place. Try again once it has handed them back."
                            : "The fan helper still has fans in manual mode, so it was left in place. Hand them back first, then reinstall it.");
            next(false);
            return;
        }
        proceed();
    });
}

void FanController::registerAgain(std::size_t attempt, std::function<void(bool)> next) {
    std::optional<std::string> failure;
    try {
        env_.installer.registerHelper();
    } catch (const std::exception& error) {
        failure = *error.what() ? std::string(error.what()) : std::string("it did not say why.");
    }
    std::weak_ptr<bool> alive = alive_;
    if (failure && attempt < std::size(reregisterRetries)) {
        const double wait = reregisterRetries[attempt];
        char line[256];
        std::snprintf(line, sizeof line, "Registering the fan helper again in %f s: %s", wait, failure->c_str());
        Log::core.notice("%s", line);
        env_.scheduler.after(wait, [this, alive, attempt, next] {
            if (alive.lock()) registerAgain(attempt + 1, next);
        });
        return;
    }
    reregisteredThisLaunch_ = true;
    helperVerified_ = false;
    reinstallReason_.reset();
    if (failure) {
        const std::string text = "macOS did not reinstall the fan helper: " + *failure;
        lastRefusal_ = Refusal{RefusalStep::reinstall, text};
        note("boost did not start — reinstall: " + text);
        setState(currentState());
        tell("The fan helper was not reinstalled", text);
        next(false);
        return;
    }
    const auto status = env_.installer.status();
    note("reinstalled the fan helper — now " + title(state(status)));
    if (status == HelperServiceStatus::requiresApproval) {
        setState({Kind::needsApproval, {}});
        tell("Allow Tavrick in Login Items", std::string("Boost starts as soon as the fan helper is allowed."));
        awaitApproval(env_.scheduler.clock().monotonic());
        next(false);
        return;
    }
    setState(currentState());
    next(status == HelperServiceStatus::enabled);
}

void FanController::refused(std::optional<FanReason> reason, const Reply::Status& status) {
    status_ = status;
    setState(helperState(status));
    const std::string text = describe(reason.value_or(FanReason::unknown));
    const auto step = reason == FanReason::invalidRequest ? RefusalStep::request : RefusalStep::helper;
    lastRefusal_ = Refusal{step, text};
    note("boost did not start — helper: " + text);
    preset_.set(FanPreset::automatic);
    tell("Boost did not start", text);
    sync();
}

void FanController::failed(const FanHelperFailure& failure, bool boosting) {
    Log::core.error("A call to the fan helper failed: %s", failure.text().c_str());
    note("a call to the fan helper failed — " + failure.text());
    const auto kind = failure.kind;
    if (kind == FanHelperFailure::Kind::invalidated || kind == FanHelperFailure::Kind::refused ||
        kind == FanHelperFailure::Kind::helperNotTrusted) {
        dropClient();
        helperVerified_ = false;
    }
    if (kind == FanHelperFailure::Kind::refused) {
        reinstallReason_ = "The fan helper on this Mac did not accept this copy of Tavrick. A later version of Tavrick "
                           "probably installed it. Use that version, or reinstall the helper from this one.";
    } else if (kind == FanHelperFailure::Kind::invalidated) {
        reinstallReason_ = "macOS has the fan helper allowed, but did not start it for this copy of Tavrick. Reinstall "
                           "the helper from this one.";
    }
    setState(currentState());
    if (preset_.get() != FanPreset::automatic) {
        lastRefusal_ = Refusal{RefusalStep::call, failure.text()};
        preset_.set(FanPreset::automatic);
        tell(boosting ? "Boost stopped" : "Boost did not start", failure.text());
        sync();
    }
}

void FanController::absorb(const Reply::Status& status, bool justApplied) {
    const bool wasBoosting = state_.get().kind == Kind::boosting;
    status_ = status;
    auto helper = helperState(status);
    auto verdict = reconcile(request(preset_.get()), status);
    using R = BoostReconciliation::Kind;
    if (verdict.kind == R::notAsked || verdict.kind == R::holding) {
        pendingSince_.reset();
        setState(helper);
        if (verdict.kind == R::notAsked && status.controlling) note("the fan helper has the fans, with nothing asked of it from here");
        if (verdict.kind == R::holding && lastRefusal_ && lastRefusal_->step == RefusalStep::approval) lastRefusal_.reset();
        return;
    }
    if (helper.kind == Kind::safeHold) {
        setState(helper);
        note("the fan helper could not hand the fans back and is holding them on its safety curve — " + releaseNote(status));
        if (preset_.get() != FanPreset::automatic) {
            lastRefusal_ = Refusal{RefusalStep::helper, describe(FanReason::safeHold)};
        }
        return;
    }
    const double now = env_.scheduler.clock().monotonic();
    const auto asked = request(preset_.get());
    const bool notYetShowing = !status.controlling || !status.request || (asked && *status.request < *asked);
    if ((justApplied || pendingSince_) && notYetShowing && !verdict.reason) {
        // The helper may take the fans only after its spacing or the settle after a wake.
        if (!pendingSince_) pendingSince_ = now;
        if (now - *pendingSince_ < startGrace) {
            setState({Kind::starting, {}});
            return;
        }
    }
    if (verdict.reason == FanReason::sleeping) {
        setState(helper);
        return;
    }
    pendingSince_.reset();
    const bool hadFans = wasBoosting || (status.lastRelease && (!askedAt_ || status.lastRelease->at >= *askedAt_));
    std::string text;
    if (verdict.reason) {
        text = describe(*verdict.reason);
    } else {
        text = hadFans ? "The fan helper let the fans go to macOS without giving a reason." : "The fan helper did not take the fans.";
    }
    if (wasBoosting) {
        note("boost ended — the fan helper let the fans go — " + releaseNote(status));
    } else {
        note("boost did not start — the fan helper did not take the fans — reason " +
             (verdict.reason ? std::string(tavrick::rawValue(*verdict.reason)) : std::string("none given")));
    }
    lastRefusal_ = Refusal{RefusalStep::helper, text};
    preset_.set(FanPreset::automatic);
    setState(helper);
    tell(wasBoosting ? "Tavrick's boost is off" : "Boost did not start", text);
    sync();
}

void FanController::withdraw(Done done) {
    approvalTask_.cancel();
    const bool owes = status_ && owesHandBack(*status_);
    if (!client_ && !owes) {
        setState(currentState());
        done();
        return;
    }
    auto client = connectedClient();
    if (!client) {
        setState(currentState());
        done();
        return;
    }
    std::weak_ptr<bool> alive = alive_;
    paced([this, alive, client, done] {
        if (!alive.lock()) return;
        client->handBack([this, alive, done](FanHelperOutcome<Reply::Status> outcome) {
            if (!alive.lock()) return;
            hasRequest_ = false;
            if (auto* failure = failureOf(outcome)) {
                failed(*failure, false);
                done();
                return;
            }
            const auto& status = std::get<Reply::Status>(outcome);
            absorb(status, false);
            if (!owesHandBack(status)) {
                scheduleDisconnect();
                done();
            } else if (!withdrewAgain_ && status.clients == 0) {
                withdrewAgain_ = true;
                releaseFans(false, [this, done] {
                    withdrewAgain_ = false;
                    done();
                });
            } else {
                done();
            }
        });
    });
}

void FanController::handBackFans() {
    releaseFans(false, [] {});
}

void FanController::handBackFansAnyway() {
    releaseFans(true, [] {});
}

void FanController::releaseFans(bool override, Done done) {
    auto client = connectedClient();
    if (!client) {
        done();
        return;
    }
    std::weak_ptr<bool> alive = alive_;
    paced([this, alive, client, override, done] {
        if (!alive.lock()) return;
        auto finish = [this, alive, override, done](FanHelperOutcome<Reply::ReleaseResult> outcome) {
            if (!alive.lock()) return;
            if (auto* failure = failureOf(outcome)) {
                failed(*failure, false);
                done();
                return;
            }
            const auto& result = std::get<Reply::ReleaseResult>(outcome);
            status_ = result.status;
            setState(helperState(result.status));
            if (result.released) {
                tell("Fans back to automatic", std::string(override ? "Tavrick handed the fans back to macOS. If another app is still running, it may set them again."
                                                                    : "Tavrick handed the fans back to macOS."));
                const auto& named = result.unrecorded && !result.unrecorded->empty() ? *result.unrecorded : result.fans;
                note("handed back fan " + fanList(named) + (override ? " (override)" : " on request"));
            } else {
                std::string text = result.status.clients > 0
                                       ? "Another Tavrick process is still asking for a boost, so the fans stayed where they are."
                                       : (result.reason ? describe(*result.reason) : std::string());
                tell("The fans are still not on automatic", text.empty() ? std::nullopt : std::optional<std::string>(text));
                note("hand-back refused — " + (text.empty() ? std::string("no reason") : text));
            }
            done();
        };
        if (override) client->releaseUnrecordedFans(finish);
        else client->releaseFans(finish);
    });
}

void FanController::helperInterrupted(int generation) {
    if (generation != generation_) return;
    helperVerified_ = false;
    const bool held = std::exchange(hasRequest_, false);
    const auto kind = state_.get().kind;
    if (!held && kind != Kind::boosting && kind != Kind::starting) return;
    const std::string text = "The fan helper stopped unexpectedly and handed the fans back to macOS.";
    note("the fan helper went away while Tavrick still believed it had the fans");
    preset_.set(FanPreset::automatic);
    pendingSince_.reset();
    lastRefusal_ = Refusal{RefusalStep::interruption, text};
    note("boost ended — interruption: " + text);
    setState(currentState().kind == Kind::boosting ? State{Kind::ready, {}} : currentState());
    tell("Fans back to automatic", text);
    // Read again once the helper is back.
    std::weak_ptr<bool> alive = alive_;
    env_.scheduler.after(statusSettleWindow, [this, alive] {
        if (!alive.lock() || !client_) return;
        client_->status([this, alive](FanHelperOutcome<Reply::Status> outcome) {
            if (!alive.lock()) return;
            if (auto* status = std::get_if<Reply::Status>(&outcome)) absorb(*status, false);
        });
    });
}

void FanController::updatePolling() {
    const auto kind = state_.get().kind;
    const bool wanted = preset_.get() != FanPreset::automatic || kind == Kind::boosting || kind == Kind::starting ||
                        kind == Kind::safeHold;
    if (!wanted) {
        pollTask_.cancel();
        pollTask_ = {};
        return;
    }
    if (pollTask_ && !pollTask_.isCancelled()) return;
    std::weak_ptr<bool> alive = alive_;
    pollTask_ = env_.scheduler.every(statusPollInterval, [this, alive] {
        if (!alive.lock() || !client_) return;
        auto client = client_;
        paced([this, alive, client] {
            if (!alive.lock()) return;
            client->status([this, alive](FanHelperOutcome<Reply::Status> outcome) {
                if (!alive.lock()) return;
                if (auto* status = std::get_if<Reply::Status>(&outcome)) {
                    absorb(*status, false);
                    updatePolling();
                }
            });
        });
    });
}

void FanController::scheduleDisconnect() {
    disconnectTask_.cancel();
    std::weak_ptr<bool> alive = alive_;
    disconnectTask_ = env_.scheduler.after(idleDisconnect, [this, alive] {
        if (!alive.lock()) return;
        if (preset_.get() != FanPreset::automatic || (status_ && owesHandBack(*status_))) return;
        dropClient();
        setState(currentState());
    });
}

void FanController::paced(std::function<void()> call) {
    const double now = env_.scheduler.clock().monotonic();
    const double at = std::max(now, lastCall_ + minimumCallSpacing);
    lastCall_ = at;
    if (at <= now) {
        call();
    } else {
        env_.scheduler.after(at - now, std::move(call));
    }
}

std::shared_ptr<FanHelperService> FanController::connectedClient() {
    if (client_) return client_;
    if (!env_.makeClient) return nullptr;
    client_ = env_.makeClient();
    if (!client_) return nullptr;
    const int generation = generation_;
    std::weak_ptr<bool> alive = alive_;
    client_->onInterruption = [this, alive, generation] {
        if (alive.lock()) helperInterrupted(generation);
    };
    client_->onRefusal = [this, alive, generation] {
        if (alive.lock() && generation == generation_) failed(FanHelperFailure::of(FanHelperFailure::Kind::refused), state_.get().kind == Kind::boosting);
    };
    client_->onInvalidation = [this, alive, generation] {
        if (alive.lock() && generation == generation_) helperVerified_ = false;
    };
    return client_;
}

void FanController::dropClient() {
    if (client_) client_->invalidate();
    client_.reset();
    ++generation_;
    pollTask_.cancel();
}

void FanController::refresh() {
    std::weak_ptr<bool> alive = alive_;
    if (env_.readManualFans) sawManualFan_ = env_.readManualFans().value_or(false);
    settledStatus(statusSettleReads, [this, alive](HelperServiceStatus status) {
        if (!alive.lock()) return;
        if (!env_.bundle) {
            setState({Kind::onlyInInstalledApp, {}});
            return;
        }
        if (status == HelperServiceStatus::enabled && client_) {
            client_->status([this, alive](FanHelperOutcome<Reply::Status> outcome) {
                if (!alive.lock()) return;
                if (auto* s = std::get_if<Reply::Status>(&outcome)) absorb(*s, false);
            });
            return;
        }
        setState(isUnsupported_ && status == HelperServiceStatus::enabled ? State{Kind::unsupportedNeedsFtst, {}} : state(status));
    });
}

} // namespace tavrick
