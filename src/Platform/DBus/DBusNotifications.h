#pragma once

#include "CoreKit/Toast.h"
#include "CoreKit/UserNotifications.h"

#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace sdbus {
class IConnection;
}

namespace tavrick {

class BusLoop;

// Notices and toasts as desktop notifications (org.freedesktop.Notifications.Notify). A notice
// with the same identifier as an earlier one replaces it on screen. When the server answers with
// an error, or the bus is gone, the line goes to the terminal face instead and the log says why:
// nothing is lost.
class DBusNotifications final : public UserNotificationCenter, public Toast::Presenter {
public:
    using Note = std::function<void(const std::string&)>;
    static constexpr const char* service = "org.freedesktop.Notifications";
    // How long a toast stays, in milliseconds; notices stay as long as the server keeps them.
    static constexpr std::int32_t toastMilliseconds = 4000;

    DBusNotifications(BusLoop& loop, sdbus::IConnection& session, UserNotificationCenter& terminalNotices,
                      Toast::Presenter& terminalToasts, Note note);
    // Waits for the notices already handed to the bus thread.
    ~DBusNotifications() override;

    // Whether a notification server owns the name now, or can be started for it.
    static bool isOffered(BusLoop& loop, sdbus::IConnection& session);

    void requestAuthorization(int options, AuthorizationReply reply) override;
    void add(const std::string& identifier, const std::string& title, const std::string& body) override;
    void present(const std::string& title, Toast::Kind kind, const std::optional<std::string>& detail) override;

private:
    // On the bus thread: the server's id, or nothing after a failure (already reported).
    std::optional<std::uint32_t> notify(std::uint32_t replaces, const std::string& summary, const std::string& body,
                                        std::uint8_t urgency, std::int32_t timeout);

    BusLoop& loop_;
    sdbus::IConnection& session_;
    UserNotificationCenter& terminalNotices_;
    Toast::Presenter& terminalToasts_;
    Note note_;
    std::mutex mutex_;
    std::map<std::string, std::uint32_t> shown_;
};

} // namespace tavrick
