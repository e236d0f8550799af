#pragma once

#include "CoreKit/Observable.h"
#include "CoreKit/RawValue.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace tavrick {

class DiagnosticLog;

// The system's side of installing and switching on a content filter: an activation request for
// a system extension, and the filter configuration in the system's preferences. Replies may
// come later; the controller's delegate methods take them on the main queue.
class FilterSystem {
public:
    struct Preferences {
        bool hasConfiguration = false;
        bool isEnabled = false;
    };
    using PreferencesReply = std::function<void(Preferences, std::optional<std::string> error)>;
    using SaveReply = std::function<void(std::optional<std::string> error)>;

    virtual ~FilterSystem() = default;
    // The extension inside this copy of the program, if there is one.
    virtual std::optional<std::filesystem::path> bundledExtension() = 0;
    // Where this copy of the program lives.
    virtual std::string bundlePath() = 0;
    virtual void submitActivation(std::string_view identifier) = 0;
    virtual void submitDeactivation(std::string_view identifier) = 0;
    virtual void loadPreferences(PreferencesReply reply) = 0;
    // Makes a configuration when there is none (sockets filtered, packets not), describes it
    // as "Tavrick", switches it on and saves.
    virtual void enableFilter(SaveReply reply) = 0;
};

// A Linux machine has no system extensions: the filter is not in this copy.
class AbsentFilterSystem final : public FilterSystem {
public:
    explicit AbsentFilterSystem(std::string bundlePath) : bundlePath_(std::move(bundlePath)) {}
    std::optional<std::filesystem::path> bundledExtension() override { return std::nullopt; }
    std::string bundlePath() override { return bundlePath_; }
    void submitActivation(std::string_view) override {}
    void submitDeactivation(std::string_view) override {}
    void loadPreferences(PreferencesReply reply) override { reply(Preferences{}, std::nullopt); }
    void enableFilter(SaveReply reply) override { reply(std::string("there is no network filter on this system")); }

private:
    std::string bundlePath_;
};

// Installs, enables and removes the filter extension, and says where that stands. Main thread.
class FilterController {
public:
    struct State {
        enum class Kind { notInBundle, notInApplications, notInstalled, needsApproval, needsFilterApproval, ready, failed };
        Kind kind = Kind::notInBundle;
        std::string message;  // for `failed`

        static State failed(std::string message) { return {Kind::failed, std::move(message)}; }
        std::string title() const;
        std::string explanation() const;
        bool operator==(const State&) const = default;
    };

    enum class RefusalStep { bundle, location, request, approval, configuration, connection };

    struct Refusal {
        RefusalStep step;
        std::string detail;
        bool operator==(const Refusal&) const = default;
    };

    enum class RequestResult { completed, willCompleteAfterReboot, unknown };

    FilterController(std::shared_ptr<FilterSystem> system, DiagnosticLog* log);

    const Observable<State>& state() const { return state_; }
    const Observable<std::optional<Refusal>>& refusal() const { return refusal_; }
    bool isWaitingForApproval() const { return isWaitingForApproval_; }
    const std::optional<std::filesystem::path>& bundled() const { return bundled_; }
    bool isAvailable() const { return bundled_.has_value(); }

    void install();
    void remove();
    void refresh();

    // The activation request's delegate.
    bool replacesExistingExtension() const { return true; }
    void requestNeedsUserApproval();
    void requestDidFinish(RequestResult result);
    void requestDidFail(int code, const std::string& description);

    // The text for a failed request's error code; the error's own text for a code not listed.
    static std::string requestFailureText(int code, const std::string& description);

private:
    void enable();
    void refuse(RefusalStep step, const std::string& detail);
    bool isInApplications();

    std::shared_ptr<FilterSystem> system_;
    DiagnosticLog* log_;
    Observable<State> state_;
    Observable<std::optional<Refusal>> refusal_;
    bool isWaitingForApproval_ = false;
    std::optional<std::filesystem::path> bundled_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

std::string_view rawValue(FilterController::RefusalStep step);
std::string_view displayName(FilterController::RefusalStep step);
template <>
std::optional<FilterController::RefusalStep> fromRaw<FilterController::RefusalStep>(std::string_view raw);

} // namespace tavrick
