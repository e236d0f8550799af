#include "Platform/DBus/BusLoop.h"

#include "CoreKit/Log.h"

#include <sdbus-c++/sdbus-c++.h>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <ctime>
#include <limits>

namespace tavrick {

namespace {

std::uint64_t monotonicMicroseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000u + static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
}

// poll's timeout for an absolute deadline in microseconds; -1 for none.
int pollTimeout(std::uint64_t deadline) {
    if (deadline == std::numeric_limits<std::uint64_t>::max()) return -1;
    const auto now = monotonicMicroseconds();
    if (deadline <= now) return 0;
    const auto milliseconds = (deadline - now + 999) / 1000;
    return milliseconds > 60000 ? 60000 : static_cast<int>(milliseconds);
}

} // namespace

BusLoop::BusLoop(std::string label) : label_(std::move(label)) {
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    thread_ = std::thread([this] {
        ::pthread_setname_np(::pthread_self(), label_.substr(0, 15).c_str());
        run();
    });
}

BusLoop::~BusLoop() {
    stopping_ = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(wake_, &one, sizeof one);
    thread_.join();
    // Objects and proxies of the adapters are gone by now; the connections close last.
    entries_.clear();
    ::close(wake_);
}

sdbus::IConnection& BusLoop::adopt(std::unique_ptr<sdbus::IConnection> connection, std::function<void()> onLost) {
    auto entry = std::make_unique<Entry>();
    entry->connection = std::move(connection);
    entry->onLost = std::move(onLost);
    auto& adopted = *entry->connection;
    sync([&] {
        std::lock_guard lock(mutex_);
        entries_.push_back(std::move(entry));
    });
    return adopted;
}

bool BusLoop::isAlive(const sdbus::IConnection& connection) const {
    std::lock_guard lock(mutex_);
    for (const auto& entry : entries_) {
        if (entry->connection.get() == &connection) return entry->alive;
    }
    return false;
}

void BusLoop::post(Task task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(wake_, &one, sizeof one);
}

void BusLoop::sync(const Task& task) {
    if (isCurrent()) {
        task();
        return;
    }
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    bool done = false;
    std::exception_ptr failure;
    post([&] {
        try {
            task();
        } catch (...) {
            failure = std::current_exception();
        }
        std::lock_guard lock(doneMutex);
        done = true;
        doneSignal.notify_one();
    });
    std::unique_lock lock(doneMutex);
    doneSignal.wait(lock, [&] { return done; });
    if (failure) std::rethrow_exception(failure);
}

bool BusLoop::isCurrent() const {
    return std::this_thread::get_id() == thread_.get_id();
}

void BusLoop::runTasks() {
    std::deque<Task> tasks;
    {
        std::lock_guard lock(mutex_);
        tasks.swap(tasks_);
    }
    for (auto& task : tasks) {
        try {
            task();
        } catch (const std::exception& failure) {
            Log::core.error("A bus task failed: %s", failure.what());
        }
    }
}

void BusLoop::lose(Entry& entry, const std::string& why) {
    {
        std::lock_guard lock(mutex_);
        entry.alive = false;
    }
    Log::core.notice("A bus connection went away: %s", why.c_str());
    if (entry.onLost) {
        try {
            entry.onLost();
        } catch (const std::exception& failure) {
            Log::core.error("Handling a lost bus failed: %s", failure.what());
        }
    }
}

void BusLoop::run() {
    while (!stopping_) {
        runTasks();
        // Messages already read (a call's reply brings others with it) are handled before
        // waiting, and the poll data then says how long sd-bus may sleep.
        std::vector<pollfd> descriptors{{wake_, POLLIN, 0}};
        std::vector<Entry*> polled;
        int timeout = -1;
        for (auto& entry : entries_) {
            if (!entry->alive) continue;
            try {
                while (entry->connection->processPendingRequest()) {
                }
                const auto data = entry->connection->getEventLoopPollData();
                descriptors.push_back({data.fd, data.events, 0});
                polled.push_back(entry.get());
                const int wait = pollTimeout(data.timeout_usec);
                if (wait >= 0 && (timeout < 0 || wait < timeout)) timeout = wait;
            } catch (const sdbus::Error& failure) {
                lose(*entry, failure.getMessage());
            }
        }
        if (stopping_) break;
        {
            std::lock_guard lock(mutex_);
            if (!tasks_.empty()) timeout = 0;
        }
        ::poll(descriptors.data(), descriptors.size(), timeout);
        if (descriptors[0].revents & POLLIN) {
            std::uint64_t count = 0;
            [[maybe_unused]] auto read = ::read(wake_, &count, sizeof count);
        }
        for (std::size_t i = 0; i < polled.size(); ++i) {
            const auto revents = descriptors[i + 1].revents;
            if (!(revents & (POLLHUP | POLLERR | POLLNVAL))) continue;
            // The other end closed: whatever is left is read, then the bus counts as gone.
            try {
                while (polled[i]->connection->processPendingRequest()) {
                }
                lose(*polled[i], "the bus closed its socket");
            } catch (const sdbus::Error& failure) {
                lose(*polled[i], failure.getMessage());
            }
        }
    }
}

} // namespace tavrick
