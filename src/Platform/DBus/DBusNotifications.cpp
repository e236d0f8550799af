#include "Platform/DBus/DBusNotifications.h"

#include "Platform/DBus/BusLoop.h"
#include "Platform/DBus/BusNames.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>

namespace tavrick {

DBusNotifications::DBusNotifications(BusLoop& loop, sdbus::IConnection& session, UserNotificationCenter& terminalNotices,
                                     Toast::Presenter& terminalToasts, Note note)
    : loop_(loop), session_(session), terminalNotices_(terminalNotices), terminalToasts_(terminalToasts),
      note_(std::move(note)) {}

DBusNotifications::~DBusNotifications() {
    loop_.sync([] {});
}

bool DBusNotifications::isOffered(BusLoop& loop, sdbus::IConnection& session) {
    bool offered = false;
    loop.sync([&] { offered = BusNames::isOffered(session, service); });
    return offered;
}

void DBusNotifications::requestAuthorization(int, AuthorizationReply reply) {
    reply(true, std::nullopt);
}

std::optional<std::uint32_t> DBusNotifications::notify(std::uint32_t replaces, const std::string& summary,
                                                       const std::string& body, std::uint8_t urgency, std::int32_t timeout) {
    if (!loop_.isAlive(session_)) {
        note_("the session bus is gone; “" + summary + "” is shown on the terminal");
        return std::nullopt;
    }
    try {
        auto server = sdbus::createProxy(session_, service, "/org/freedesktop/Notifications");
        std::map<std::string, sdbus::Variant> hints{{"urgency", sdbus::Variant(urgency)},
                                                    {"desktop-entry", sdbus::Variant(std::string("com.orvell.tavrick"))}};
        std::uint32_t id = 0;
        server->callMethod("Notify")
            .onInterface(service)
            .withTimeout(std::chrono::seconds(5))
            .withArguments(std::string("Tavrick"), replaces, std::string(), summary, body, std::vector<std::string>{}, hints,
                           timeout)
            .storeResultsTo(id);
        return id;
    } catch (const sdbus::Error& failure) {
        note_("the notification server refused “" + summary + "” (" + failure.getName() + ": " + failure.getMessage() +
              "); shown on the terminal");
        return std::nullopt;
    }
}

void DBusNotifications::add(const std::string& identifier, const std::string& title, const std::string& body) {
    loop_.post([this, identifier, title, body] {
        std::uint32_t replaces = 0;
        {
            std::lock_guard lock(mutex_);
            if (auto found = shown_.find(identifier); found != shown_.end()) replaces = found->second;
        }
        if (auto id = notify(replaces, title, body, 1, -1)) {
            std::lock_guard lock(mutex_);
            if (!identifier.empty()) shown_[identifier] = *id;
        } else {
            terminalNotices_.add(identifier, title, body);
        }
    });
}

void DBusNotifications::present(const std::string& title, Toast::Kind kind, const std::optional<std::string>& detail) {
    loop_.post([this, title, kind, detail] {
        const std::uint8_t urgency = kind == Toast::Kind::warning ? 1 : 0;
        if (!notify(0, title, detail.value_or(""), urgency, toastMilliseconds)) {
            terminalToasts_.present(title, kind, detail);
        }
    });
}

} // namespace tavrick
