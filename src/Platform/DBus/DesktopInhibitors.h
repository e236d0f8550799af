#pragma once

#include "AwakeKit/PowerAssertions.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace sdbus {
class IConnection;
}

namespace tavrick {

class BusLoop;

// Keep-awake sessions as the desktop's inhibitors. "Keep display on" takes the screen saver's
// inhibitor on the session bus (org.freedesktop.ScreenSaver.Inhibit, a cookie) and logind's
// "idle" lock; "allow display to sleep" takes logind's "sleep" lock only. A logind lock is held
// by the descriptor logind hands back and ends when it is closed. An assertion is all of its
// parts or nothing: a refused part releases the others and the whole is refused.
class DesktopInhibitors final : public PowerAssertions {
public:
    using Note = std::function<void(const std::string&)>;
    static constexpr const char* screenSaver = "org.freedesktop.ScreenSaver";
    static constexpr const char* logind = "org.freedesktop.login1";

    // Either connection may be missing (nullptr): its part is then not taken.
    DesktopInhibitors(BusLoop& loop, sdbus::IConnection* session, sdbus::IConnection* system, Note note,
                      std::string who = "Tavrick");
    ~DesktopInhibitors() override;

    std::optional<std::uint32_t> create(const std::string& type, const std::string& name, int& error) override;
    void release(std::uint32_t id) override;
    std::string describe() const override;

    // logind's lock for an assertion type: "idle" to keep the display on, "sleep" otherwise.
    static std::string logindWhat(const std::string& type);
    static bool keepsDisplayOn(const std::string& type);

    // What is held now, as the log says it; empty when nothing is.
    std::size_t heldCount() const;

private:
    struct Held {
        std::string name;
        std::optional<std::uint32_t> cookie;
        int descriptor = -1;
        std::string what;
    };
    void releaseOnBus(Held& held);
    static std::string describeHeld(const Held& held);

    BusLoop& loop_;
    sdbus::IConnection* session_;
    sdbus::IConnection* system_;
    Note note_;
    std::string who_;
    mutable std::mutex mutex_;
    std::map<std::uint32_t, Held> held_;
    std::uint32_t nextID_ = 1;
};

} // namespace tavrick
