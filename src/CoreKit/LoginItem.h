#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"

#include <functional>
#include <optional>
#include <string>

namespace tavrick {

// The registration that opens the program at login, as the platform reports it.
enum class LoginItemStatus : int { notRegistered = 0, enabled = 1, requiresApproval = 2, notFound = 3 };

// Where the registration lives. `status` answers with a `LoginItemStatus` value, or another
// number the platform invented since; `registerItem` and `unregisterItem` give the failure's
// description, or nothing on success.
struct LoginItemService {
    std::function<int()> status;
    std::function<std::optional<std::string>()> registerItem;
    std::function<std::optional<std::string>()> unregisterItem;
    std::function<void()> openSettings = nullptr;
};

struct LoginItemState {
    enum class Kind { unavailable, enabled, disabled, requiresApproval };
    Kind kind = Kind::disabled;
    // Why, for `unavailable`.
    std::string reason;

    static LoginItemState unavailable(std::string reason) { return {Kind::unavailable, std::move(reason)}; }
    static LoginItemState enabled() { return {Kind::enabled, {}}; }
    static LoginItemState disabled() { return {Kind::disabled, {}}; }
    static LoginItemState requiresApproval() { return {Kind::requiresApproval, {}}; }

    bool isOn() const { return kind == Kind::enabled; }
    // What the settings pane says under the switch, when anything.
    std::optional<std::string> note() const;

    bool operator==(const LoginItemState&) const = default;
};

// Wraps the open-at-login registration. Main thread only.
class LoginItemController {
public:
    // How long a "not found" waits before it is read once more: it often clears by itself right
    // after the program was updated or moved.
    static constexpr double notFoundRetrySeconds = 2.0;

    LoginItemController(LoginItemService service, Scheduler& scheduler);
    ~LoginItemController();
    LoginItemController(const LoginItemController&) = delete;
    LoginItemController& operator=(const LoginItemController&) = delete;

    const Observable<LoginItemState>& state() const { return state_; }
    bool isRetryingNotFound() const { return isRetryingNotFound_; }

    void refresh();
    void setEnabled(bool enabled);
    void openLoginItemsSettings();

    static LoginItemState state(int status);

private:
    LoginItemService service_;
    Scheduler& scheduler_;
    Observable<LoginItemState> state_;
    bool isRetryingNotFound_ = false;
    Cancellable retry_;
};

} // namespace tavrick
