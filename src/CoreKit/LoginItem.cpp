#include "CoreKit/LoginItem.h"

#include "CoreKit/Log.h"

namespace tavrick {

std::optional<std::string> LoginItemState::note() const {
    switch (kind) {
    case Kind::unavailable: return reason;
    case Kind::requiresApproval:
        return "Tavrick is set to open at login, but macOS is holding it back. Allow it in System Settings › "
               "General › Login Items.";
    case Kind::enabled:
    case Kind::disabled: return std::nullopt;
    }
    return std::nullopt;
}

LoginItemController::LoginItemController(LoginItemService service, Scheduler& scheduler)
    : service_(std::move(service)), scheduler_(scheduler) {}

LoginItemController::~LoginItemController() {
    retry_.cancel();
}

LoginItemState LoginItemController::state(int status) {
    switch (status) {
    case static_cast<int>(LoginItemStatus::notRegistered): return LoginItemState::disabled();
    case static_cast<int>(LoginItemStatus::enabled): return LoginItemState::enabled();
    case static_cast<int>(LoginItemStatus::requiresApproval): return LoginItemState::requiresApproval();
    case static_cast<int>(LoginItemStatus::notFound):
        return LoginItemState::unavailable(
            "macOS does not recognise this copy of Tavrick, so it cannot open at login. If it was just updated or "
            "moved, quit and reopen it. Otherwise make sure Tavrick is in your Applications folder.");
    default: return LoginItemState::unavailable("unrecognised status");
    }
}

void LoginItemController::refresh() {
    const int status = service_.status ? service_.status() : -1;
    state_.set(state(status));
    if (state_.get().kind != LoginItemState::Kind::unavailable || isRetryingNotFound_) return;
    isRetryingNotFound_ = true;
    retry_ = scheduler_.after(notFoundRetrySeconds, [this] {
        // The flag drops only after the second reading, so that reading does not retry again.
        refresh();
        isRetryingNotFound_ = false;
    });
}

void LoginItemController::setEnabled(bool enabled) {
    const auto& change = enabled ? service_.registerItem : service_.unregisterItem;
    std::optional<std::string> failure = change ? change() : std::optional<std::string>("no login item service");
    if (failure) {
        Log::core.error("Login item change failed: %s", failure->c_str());
    } else {
        Log::core.notice("Login item %s", enabled ? "registered" : "unregistered");
    }
    refresh();
}

void LoginItemController::openLoginItemsSettings() {
    if (service_.openSettings) service_.openSettings();
}

} // namespace tavrick
