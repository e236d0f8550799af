#pragma once

#include "AwakeKit/PowerAssertions.h"
#include "CoreKit/SecretStore.h"
#include "CoreKit/Toast.h"
#include "CoreKit/UserNotifications.h"
#include "CoreKit/Workspace.h"
#include "Platform/DBus/BusLoop.h"
#include "Platform/DBus/DBusNotifications.h"
#include "Platform/DBus/SecretServiceStore.h"
#include "Platform/DBus/StatusNotifierItem.h"

#include <functional>
#include <memory>
#include <string>

namespace sdbus {
class IConnection;
}

namespace tavrick {

class Scheduler;

// The session and system buses as the program found them at launch, on one bus thread, and the
// choice of each desktop adapter over them. Every choice is noted with what was chosen and why;
// where a bus or a service is missing the caller keeps its terminal or file adapter.
class DesktopBus {
public:
    using Note = std::function<void(const std::string&)>;

    // Opens what answers of DBUS_SESSION_BUS_ADDRESS and the system bus (DBUS_SYSTEM_BUS_ADDRESS
    // when set). Never fails: a missing bus is noted and left out.
    static std::unique_ptr<DesktopBus> open(Note note);
    ~DesktopBus();

    BusLoop& loop() { return loop_; }
    sdbus::IConnection* session() { return session_; }
    sdbus::IConnection* system() { return system_; }

    // Notifications through the desktop's server, or nothing when none is offered.
    std::shared_ptr<DBusNotifications> notifications(UserNotificationCenter& terminalNotices, Toast::Presenter& terminalToasts);
    // The Secret Service, or nothing when the session bus has none.
    std::unique_ptr<SecretServiceStore> secretService();
    // The screen saver's and logind's inhibitors where either is there, else the in-memory stand-in.
    std::unique_ptr<PowerAssertions> inhibitors();
    // Reveal through the file manager's interface over `underneath`, or nothing without one.
    std::unique_ptr<DesktopLauncher> fileManager(DesktopLauncher& underneath);
    // The tray item, not yet started, or nothing without a session bus.
    std::unique_ptr<StatusNotifierItem> tray(Scheduler& main);

private:
    explicit DesktopBus(Note note);
    BusLoop loop_;
    Note note_;
    sdbus::IConnection* session_ = nullptr;
    sdbus::IConnection* system_ = nullptr;
};

} // namespace tavrick
