#include "CoreKit/WorkspaceNotifications.h"

#include <vector>

namespace tavrick {

WorkspaceNotifications::WorkspaceNotifications(Scheduler& scheduler) : scheduler_(scheduler) {}

Observation WorkspaceNotifications::observe(WorkspaceEvent event, Observer observer) {
    int id;
    {
        std::lock_guard lock(observers_->mutex);
        id = observers_->nextId++;
        observers_->byEvent.emplace(event, std::make_pair(id, std::move(observer)));
    }
    std::weak_ptr<Observers> weak = observers_;
    return Observation([weak, event, id] {
        auto observers = weak.lock();
        if (!observers) return;
        std::lock_guard lock(observers->mutex);
        auto [first, last] = observers->byEvent.equal_range(event);
        for (auto it = first; it != last; ++it) {
            if (it->second.first == id) {
                observers->byEvent.erase(it);
                return;
            }
        }
    });
}

void WorkspaceNotifications::post(WorkspaceNotification notification) {
    if (scheduler_.isMainThread()) {
        deliver(notification);
        return;
    }
    std::weak_ptr<Observers> weak = observers_;
    scheduler_.async([this, weak, notification] {
        if (weak.lock()) deliver(notification);
    });
}

void WorkspaceNotifications::deliver(const WorkspaceNotification& notification) {
    // Observers may subscribe or cancel while being told; they are called outside the lock.
    std::vector<std::pair<int, Observer>> interested;
    {
        std::lock_guard lock(observers_->mutex);
        auto [first, last] = observers_->byEvent.equal_range(notification.event);
        for (auto it = first; it != last; ++it) interested.push_back(it->second);
    }
    for (auto& [id, observer] : interested) observer(notification);
}

} // namespace tavrick
