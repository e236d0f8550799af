#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/MenuModel.h"
#include "Platform/DBus/DBusMenuLayout.h"

#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>


namespace tavrick {

class BusLoop;
class Scheduler;

// The menu bar item as a tray item: a StatusNotifierItem with its menu exported over dbusmenu,
// drawn from a `MenuSource`. The item registers with the StatusNotifierWatcher, and again each
// time a watcher takes the name; without a watcher or a host it says so and the terminal face
// carries on alone. Hosts' choices reach the source on the main queue.
class StatusNotifierItem {
public:
    using Note = std::function<void(const std::string&)>;
    static constexpr const char* itemPath = "/StatusNotifierItem";
    static constexpr const char* menuPath = "/MenuBar";
    static constexpr const char* watcherName = "org.kde.StatusNotifierWatcher";

    // `note` gets the lines for the user's log; it may run on the bus thread.
    StatusNotifierItem(BusLoop& loop, sdbus::IConnection& session, Scheduler& main, Note note);
    ~StatusNotifierItem();
    StatusNotifierItem(const StatusNotifierItem&) = delete;
    StatusNotifierItem& operator=(const StatusNotifierItem&) = delete;

    // Main queue. The menu shown from now on; nullptr shows an empty menu.
    void setSource(MenuSource* source);
    // Exports the item and its menu under a name of its own and registers with the watcher.
    void start();

    // "org.kde.StatusNotifierItem-<pid>-<n>".
    const std::string& busName() const { return busName_; }
    // Whether the watcher last took the registration.
    bool isRegistered() const { return registered_; }

    // Main queue: the host's primary click on the item itself (most hosts open the menu instead).
    std::function<void()> onActivate;

private:
    void refresh();
    void apply(const MenuSnapshot& snapshot);
    void exportObjects();
    void registerWithWatcher(const char* why);
    void choose(std::int32_t id, const std::string& eventID);
    std::string title() const;

    BusLoop& loop_;
    sdbus::IConnection& session_;
    Scheduler& main_;
    Note note_;
    std::string busName_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    std::atomic<bool> registered_{false};

    // Main queue.
    MenuSource* source_ = nullptr;
    int observer_ = 0;

    // Bus thread.
    DBusMenuLayout layout_;
    std::string label_;
    std::unique_ptr<sdbus::IObject> item_;
    std::unique_ptr<sdbus::IObject> menu_;
    sdbus::Slot watcherOwner_;
    sdbus::Slot hostRegistered_;
};

} // namespace tavrick
