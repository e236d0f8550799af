#include "NetKit/FilterController.h"

#include "CoreKit/DiagnosticLog.h"
#include "NetCore/NetFilterProtocol.h"
#include "NetKit/NetLog.h"

namespace tavrick {

std::string FilterController::State::title() const {
    switch (kind) {
    case Kind::notInBundle: return "Not in this copy of Tavrick";
    case Kind::notInApplications: return "Tavrick must be in /Applications";
    case Kind::notInstalled: return "Not installed";
    case Kind::needsApproval: return "Waiting for your approval";
    case Kind::needsFilterApproval: return "Waiting to be switched on";
    case Kind::ready: return "Watching every connection on this Mac";
    case Kind::failed: return message;
    }
    return message;
}

std::string FilterController::State::explanation() const {
    switch (kind) {
    case Kind::notInBundle:
        return "The system extension that sees the whole Mac is only in builds signed with a provisioning profile. "
               "Without it, connections are read from the kernel's process table instead, which reaches only "
               "programs running as you.";
    case Kind::notInApplications: return "macOS installs a network filter only from an app in /Applications.";
    case Kind::notInstalled:
        return "Installing it asks you twice: once to allow the extension, in General › Login Items & Extensions, "
               "and once to allow it to filter network content. It reports what is happening and blocks nothing.";
    case Kind::needsApproval:
        return "macOS is waiting for you in System Settings › General › Login Items & Extensions, under Network "
               "Extensions.";
    case Kind::needsFilterApproval:
        return "Allow Tavrick to filter network content when macOS asks, or in Network › Filters.";
    case Kind::ready:
        return "Every connection on this Mac, as it opens — macOS's own services included. Nothing is blocked: the "
               "filter allows every flow and this build has no way to refuse one. To remove it: System Settings › "
               "Network › Filters, or the button here.";
    case Kind::failed: return message + " The diagnostic log has the whole message.";
    }
    return message;
}

std::string_view rawValue(FilterController::RefusalStep step) {
    using S = FilterController::RefusalStep;
    switch (step) {
    case S::bundle: return "bundle";
    case S::location: return "location";
    case S::request: return "request";
    case S::approval: return "approval";
    case S::configuration: return "configuration";
    case S::connection: return "connection";
    }
    return "bundle";
}

std::string_view displayName(FilterController::RefusalStep step) {
    using S = FilterController::RefusalStep;
    switch (step) {
    case S::bundle: return "no extension in this copy";
    case S::location: return "not in /Applications";
    case S::request: return "the activation request";
    case S::approval: return "waiting for approval";
    case S::configuration: return "the filter configuration";
    case S::connection: return "the connection to the extension";
    }
    return "";
}

template <>
std::optional<FilterController::RefusalStep> fromRaw<FilterController::RefusalStep>(std::string_view raw) {
    using S = FilterController::RefusalStep;
    for (S step : {S::bundle, S::location, S::request, S::approval, S::configuration, S::connection}) {
        if (rawValue(step) == raw) return step;
    }
    return std::nullopt;
}

FilterController::FilterController(std::shared_ptr<FilterSystem> system, DiagnosticLog* log)
    : system_(std::move(system)), log_(log) {
    if (system_) bundled_ = system_->bundledExtension();
}

bool FilterController::isInApplications() {
    return system_ && system_->bundlePath().starts_with("/Applications/");
}

void FilterController::refuse(RefusalStep step, const std::string& detail) {
    refusal_.set(Refusal{step, detail});
    const std::string words(displayName(step));
    NetLog::network.error("Network filter refused at %s: %s", words.c_str(), detail.c_str());
    if (log_) log_->note("netfilter", "refused " + words);
    state_.set(State::failed(detail));
}

void FilterController::install() {
    if (!bundled_) {
        refuse(RefusalStep::bundle, "This copy of Tavrick does not contain the network filter.");
        state_.set(State{State::Kind::notInBundle, {}});
        return;
    }
    if (!isInApplications()) {
        refuse(RefusalStep::location,
               "macOS only installs a network filter from an app in /Applications. Move Tavrick there and try again.");
        state_.set(State{State::Kind::notInApplications, {}});
        return;
    }
    system_->submitActivation(NetFilterIdentity::bundleIdentifier);
    NetLog::network.notice("Network filter: activation requested");
    if (log_) log_->note("netfilter", "activation requested");
}

void FilterController::requestNeedsUserApproval() {
    isWaitingForApproval_ = true;
    state_.set(State{State::Kind::needsApproval, {}});
    if (log_) log_->note("netfilter", "waiting for approval in System Settings");
}

void FilterController::requestDidFinish(RequestResult result) {
    isWaitingForApproval_ = false;
    switch (result) {
    case RequestResult::completed:
        if (log_) log_->note("netfilter", "extension installed");
        enable();
        return;
    case RequestResult::willCompleteAfterReboot:
        state_.set(State::failed("Installed. It starts after the Mac restarts."));
        return;
    case RequestResult::unknown:
        state_.set(State::failed("macOS reported an outcome this build does not know."));
        return;
    }
}

std::string FilterController::requestFailureText(int code, const std::string& description) {
    switch (code) {
    case 2: return "This build is not signed with the entitlement the filter needs.";
    case 3: return "macOS installs a network filter only from an app in /Applications.";
    case 4: return "The extension inside this copy of Tavrick could not be found.";
    case 8: return "The extension's signature was rejected.";
    case 10: return "A system policy on this Mac forbids installing it.";
    case 11: return "The request was cancelled.";
    case 12: return "A newer request replaced this one.";
    case 13: return "macOS needs an administrator to allow it.";
    default: return description;
    }
}

void FilterController::requestDidFail(int code, const std::string& description) {
    isWaitingForApproval_ = false;
    refuse(RefusalStep::request, requestFailureText(code, description));
}

void FilterController::enable() {
    std::weak_ptr<bool> alive = alive_;
    // Until the user allows it, the filter waits to be switched on.
    state_.set(State{State::Kind::needsFilterApproval, {}});
    system_->enableFilter([this, alive](std::optional<std::string> error) {
        if (!alive.lock()) return;
        if (error) {
            refuse(RefusalStep::configuration, *error);
            return;
        }
        refresh();
    });
}

void FilterController::remove() {
    if (system_ && bundled_) {
        system_->submitDeactivation(NetFilterIdentity::bundleIdentifier);
        NetLog::network.notice("Network filter: deactivation requested");
        if (log_) log_->note("netfilter", "deactivation requested");
    }
    refresh();
}

void FilterController::refresh() {
    if (!bundled_) {
        state_.set(State{State::Kind::notInBundle, {}});
        return;
    }
    if (!isInApplications()) {
        state_.set(State{State::Kind::notInApplications, {}});
        return;
    }
    std::weak_ptr<bool> alive = alive_;
    system_->loadPreferences([this, alive](FilterSystem::Preferences preferences, std::optional<std::string> error) {
        if (!alive.lock()) return;
        if (error) {
            refuse(RefusalStep::configuration, *error);
            return;
        }
        if (preferences.hasConfiguration && preferences.isEnabled) {
            state_.set(State{State::Kind::ready, {}});
        } else if (preferences.hasConfiguration) {
            state_.set(State{State::Kind::needsFilterApproval, {}});
        } else if (isWaitingForApproval_) {
            state_.set(State{State::Kind::needsApproval, {}});
        } else {
            state_.set(State{State::Kind::notInstalled, {}});
        }
    });
}

} // namespace tavrick
