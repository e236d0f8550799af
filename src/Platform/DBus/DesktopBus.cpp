#include "Platform/DBus/DesktopBus.h"

#include "Platform/DBus/BusNames.h"
#include "Platform/DBus/DBusNotifications.h"
#include "Platform/DBus/DesktopInhibitors.h"
#include "Platform/DBus/FileManagerLauncher.h"
#include "Platform/DBus/SecretServiceStore.h"
#include "Platform/DBus/StatusNotifierItem.h"
#include "Platform/Simulated/InMemoryPowerAssertions.h"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdlib>

namespace tavrick {

DesktopBus::DesktopBus(Note note) : note_(std::move(note)) {}

DesktopBus::~DesktopBus() = default;

std::unique_ptr<DesktopBus> DesktopBus::open(Note note) {
    std::unique_ptr<DesktopBus> bus(new DesktopBus(std::move(note)));
    const char* sessionAddress = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (sessionAddress && *sessionAddress) {
        try {
            bus->session_ = &bus->loop_.adopt(sdbus::createSessionBusConnectionWithAddress(sessionAddress), [raw = bus.get()] {
                raw->note_("the session bus went away; notices, toasts and the menu carry on in the terminal");
            });
        } catch (const sdbus::Error& failure) {
            bus->note_("no session bus (" + failure.getMessage() + "); the desktop services stay in the terminal");
        }
    } else {
        bus->note_("no session bus (DBUS_SESSION_BUS_ADDRESS is not set); the desktop services stay in the terminal");
    }
    try {
        bus->system_ = &bus->loop_.adopt(sdbus::createSystemBusConnection(), [raw = bus.get()] {
            raw->note_("the system bus went away; logind's locks are gone with it");
        });
    } catch (const sdbus::Error& failure) {
        bus->note_("no system bus (" + failure.getMessage() + ")");
    }
    return bus;
}

std::shared_ptr<DBusNotifications> DesktopBus::notifications(UserNotificationCenter& terminalNotices,
                                                             Toast::Presenter& terminalToasts) {
    if (!session_ || !DBusNotifications::isOffered(loop_, *session_)) {
        note_("notices and toasts: on the terminal (no notification server on the session bus)");
        return nullptr;
    }
    note_("notices and toasts: desktop notifications (org.freedesktop.Notifications)");
    return std::make_shared<DBusNotifications>(loop_, *session_, terminalNotices, terminalToasts, note_);
}

std::unique_ptr<SecretServiceStore> DesktopBus::secretService() {
    if (!session_ || !SecretServiceStore::isOffered(loop_, *session_)) return nullptr;
    return std::make_unique<SecretServiceStore>(loop_, *session_, note_);
}

std::unique_ptr<PowerAssertions> DesktopBus::inhibitors() {
    bool saver = false, logind = false;
    loop_.sync([&] {
        saver = session_ && BusNames::isOffered(*session_, DesktopInhibitors::screenSaver);
        logind = system_ && BusNames::isOffered(*system_, DesktopInhibitors::logind);
    });
    if (!saver && !logind) {
        return std::make_unique<InMemoryPowerAssertions>(system_ ? "the system bus has no logind" : "no system bus");
    }
    return std::make_unique<DesktopInhibitors>(loop_, saver ? session_ : nullptr, logind ? system_ : nullptr, note_);
}

std::unique_ptr<DesktopLauncher> DesktopBus::fileManager(DesktopLauncher& underneath) {
    bool offered = false;
    if (session_) loop_.sync([&] { offered = BusNames::isOffered(*session_, FileManagerLauncher::service); });
    if (!offered) {
        note_("reveal: opens the folder (no org.freedesktop.FileManager1 on the session bus)");
        return nullptr;
    }
    note_("reveal: selects the file through org.freedesktop.FileManager1");
    return std::make_unique<FileManagerLauncher>(loop_, *session_, underneath, note_);
}

std::unique_ptr<StatusNotifierItem> DesktopBus::tray(Scheduler& main) {
    if (!session_) return nullptr;
    return std::make_unique<StatusNotifierItem>(loop_, *session_, main, note_);
}

} // namespace tavrick
