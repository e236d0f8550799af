#include "Platform/DBus/DesktopInhibitors.h"

#include "Platform/DBus/BusLoop.h"

#include <sdbus-c++/sdbus-c++.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace tavrick {

namespace {
constexpr auto timeout = std::chrono::seconds(5);
}

DesktopInhibitors::DesktopInhibitors(BusLoop& loop, sdbus::IConnection* session, sdbus::IConnection* system, Note note,
                                     std::string who)
    : loop_(loop), session_(session), system_(system), note_(std::move(note)), who_(std::move(who)) {}

DesktopInhibitors::~DesktopInhibitors() {
    std::map<std::uint32_t, Held> held;
    {
        std::lock_guard lock(mutex_);
        held.swap(held_);
    }
    for (auto& [id, one] : held) {
        const auto text = describeHeld(one);
        loop_.sync([&] { releaseOnBus(one); });
        note_("released " + text + " (quitting)");
    }
}

bool DesktopInhibitors::keepsDisplayOn(const std::string& type) {
    return type == "PreventUserIdleDisplaySleep";
}

std::string DesktopInhibitors::logindWhat(const std::string& type) {
    return keepsDisplayOn(type) ? "idle" : "sleep";
}

std::string DesktopInhibitors::describeHeld(const Held& held) {
    std::string parts;
    if (held.cookie) parts = "the screen saver's inhibitor (cookie " + std::to_string(*held.cookie) + ")";
    if (held.descriptor >= 0) {
        if (!parts.empty()) parts += " and ";
        parts += "logind's “" + held.what + "” lock";
    }
    return parts + " for “" + held.name + "”";
}

std::string DesktopInhibitors::describe() const {
    std::string out;
    if (session_) out = "the screen saver's inhibitor on the session bus";
    if (system_) out += std::string(out.empty() ? "" : " and ") + "logind's idle and sleep locks on the system bus";
    return out.empty() ? "nothing" : out;
}

std::size_t DesktopInhibitors::heldCount() const {
    std::lock_guard lock(mutex_);
    return held_.size();
}

void DesktopInhibitors::releaseOnBus(Held& held) {
    if (held.cookie && session_ && loop_.isAlive(*session_)) {
        try {
            auto saver = sdbus::createProxy(*session_, screenSaver, "/org/freedesktop/ScreenSaver");
            saver->callMethod("UnInhibit").onInterface(screenSaver).withTimeout(timeout).withArguments(*held.cookie);
        } catch (const sdbus::Error& failure) {
            note_("the screen saver did not take back its inhibitor: " + failure.getMessage());
        }
    }
    held.cookie.reset();
    if (held.descriptor >= 0) ::close(held.descriptor);
    held.descriptor = -1;
}

std::optional<std::uint32_t> DesktopInhibitors::create(const std::string& type, const std::string& name, int& error) {
    Held held{name, std::nullopt, -1, logindWhat(type)};
    std::string refusal;
    loop_.sync([&] {
        if (keepsDisplayOn(type) && session_) {
            try {
                if (!loop_.isAlive(*session_)) throw sdbus::Error("org.freedesktop.DBus.Error.Disconnected", "the session bus is gone");
                auto saver = sdbus::createProxy(*session_, screenSaver, "/org/freedesktop/ScreenSaver");
                std::uint32_t cookie = 0;
                saver->callMethod("Inhibit").onInterface(screenSaver).withTimeout(timeout).withArguments(who_, name).storeResultsTo(cookie);
                held.cookie = cookie;
            } catch (const sdbus::Error& failure) {
                refusal = "the screen saver refused to stay off: " + failure.getMessage();
                return;
            }
        }
        if (system_) {
            try {
                if (!loop_.isAlive(*system_)) throw sdbus::Error("org.freedesktop.DBus.Error.Disconnected", "the system bus is gone");
                auto manager = sdbus::createProxy(*system_, logind, "/org/freedesktop/login1");
                sdbus::UnixFd lock;
                manager->callMethod("Inhibit")
                    .onInterface("org.freedesktop.login1.Manager")
                    .withTimeout(timeout)
                    .withArguments(held.what, who_, name, std::string("block"))
                    .storeResultsTo(lock);
                held.descriptor = ::fcntl(lock.get(), F_DUPFD_CLOEXEC, 0);
                if (held.descriptor < 0) refusal = "could not keep logind's lock open";
            } catch (const sdbus::Error& failure) {
                refusal = "logind refused the “" + held.what + "” lock: " + failure.getMessage();
            }
        }
        if (!refusal.empty()) releaseOnBus(held);
    });
    if (!refusal.empty()) {
        note_(refusal + "; keep-awake is off");
        error = EPERM;
        return std::nullopt;
    }
    std::uint32_t id = 0;
    {
        std::lock_guard lock(mutex_);
        id = nextID_++;
        held_[id] = held;
    }
    note_("holding " + describeHeld(held));
    return id;
}

void DesktopInhibitors::release(std::uint32_t id) {
    Held held;
    {
        std::lock_guard lock(mutex_);
        auto found = held_.find(id);
        if (found == held_.end()) return;
        held = found->second;
        held_.erase(found);
    }
    const auto text = describeHeld(held);
    loop_.sync([&] { releaseOnBus(held); });
    note_("released " + text);
}

} // namespace tavrick
