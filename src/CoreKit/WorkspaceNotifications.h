#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tavrick {

// What the desktop and the application's own lifecycle announce.
enum class WorkspaceEvent { willSleep, didWake, willPowerOff, didActivateApplication, willTerminate };

struct WorkspaceNotification {
    WorkspaceEvent event = WorkspaceEvent::didWake;
    // The application that became active, for didActivateApplication.
    std::optional<std::string> bundleID;
};

// Where services subscribe to those announcements. Host adapters post into it from any thread;
// observers are always called on the main queue, in the order they subscribed.
class WorkspaceNotifications {
public:
    using Observer = std::function<void(const WorkspaceNotification&)>;

    explicit WorkspaceNotifications(Scheduler& scheduler);

    Observation observe(WorkspaceEvent event, Observer observer);
    // On the main thread the observers run before this returns, so a notification posted while
    // the program terminates is heard before it ends; from elsewhere they run on the main queue.
    void post(WorkspaceNotification notification);

private:
    void deliver(const WorkspaceNotification& notification);

    Scheduler& scheduler_;
    struct Observers {
        std::mutex mutex;
        std::multimap<WorkspaceEvent, std::pair<int, Observer>> byEvent;
        int nextId = 0;
    };
    std::shared_ptr<Observers> observers_ = std::make_shared<Observers>();
};

} // namespace tavrick
