#pragma once

#include "CoreKit/Dispatch.h"

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sdbus {
class IConnection;
}

namespace tavrick {

// Every bus connection of the program on one thread: a single poll over the connections and a
// wake descriptor. All sd-bus work (objects, proxies, calls, signals) happens on this thread, so
// no connection is ever touched by two threads; other threads hand it blocks with `post` or
// `sync`. Incoming calls are answered here from state the adapters keep; anything that touches a
// service goes on to the main queue.
class BusLoop {
public:
    explicit BusLoop(std::string label = "com.orvell.tavrick.dbus");
    ~BusLoop();
    BusLoop(const BusLoop&) = delete;
    BusLoop& operator=(const BusLoop&) = delete;

    const std::string& label() const { return label_; }

    // Takes `connection` into the poll. `onLost` runs once on this thread when the bus goes away
    // (the daemon ended, the socket closed); the connection is then left alone for good.
    sdbus::IConnection& adopt(std::unique_ptr<sdbus::IConnection> connection, std::function<void()> onLost = {});
    // Whether `connection` still answers.
    bool isAlive(const sdbus::IConnection& connection) const;

    // Runs `task` on the bus thread, after what was posted before. A task that throws is logged.
    void post(Task task);
    // Runs `task` on the bus thread and waits for it; inline when called on the bus thread.
    void sync(const Task& task);
    bool isCurrent() const;

private:
    struct Entry {
        std::unique_ptr<sdbus::IConnection> connection;
        std::function<void()> onLost;
        bool alive = true;
    };
    void run();
    void runTasks();
    void lose(Entry& entry, const std::string& why);

    std::string label_;
    mutable std::mutex mutex_;
    std::deque<Task> tasks_;
    std::vector<std::unique_ptr<Entry>> entries_;
    int wake_ = -1;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

} // namespace tavrick
