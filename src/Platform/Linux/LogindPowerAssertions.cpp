#include "Platform/Linux/LogindPowerAssertions.h"

#include "CoreKit/Log.h"
#include "Platform/Simulated/InMemoryPowerAssertions.h"

#include <sdbus-c++/sdbus-c++.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tavrick {

LogindPowerAssertions::LogindPowerAssertions(std::unique_ptr<sdbus::IConnection> connection, std::string who)
    : connection_(std::move(connection)), who_(std::move(who)) {}

LogindPowerAssertions::~LogindPowerAssertions() {
    for (auto& [id, fd] : descriptors_) ::close(fd);
}

std::string LogindPowerAssertions::inhibitWhat(const std::string&) {
    return "idle";
}

std::optional<std::uint32_t> LogindPowerAssertions::create(const std::string& type, const std::string& name, int& error) {
    try {
        auto proxy = sdbus::createProxy(*connection_, service, "/org/freedesktop/login1");
        sdbus::UnixFd lock;
        proxy->callMethod("Inhibit")
            .onInterface("org.freedesktop.login1.Manager")
            .withArguments(inhibitWhat(type), who_, name, std::string("block"))
            .storeResultsTo(lock);
        // The lock lasts as long as a descriptor for it is open; keep our own.
        const int fd = ::dup(lock.get());
        if (fd < 0) {
            error = errno;
            return std::nullopt;
        }
        std::lock_guard guard(mutex_);
        const auto id = nextID_++;
        descriptors_[id] = fd;
        return id;
    } catch (const sdbus::Error& failure) {
        Log::awake.error("logind refused the inhibitor: %s", failure.getMessage().c_str());
        error = EPERM;
        return std::nullopt;
    }
}

void LogindPowerAssertions::release(std::uint32_t id) {
    std::lock_guard guard(mutex_);
    auto found = descriptors_.find(id);
    if (found == descriptors_.end()) return;
    ::close(found->second);
    descriptors_.erase(found);
}

std::string LogindPowerAssertions::describe() const {
    return "a logind idle inhibitor on the system bus";
}

bool LogindPowerAssertions::hasLogind(sdbus::IConnection& connection) {
    try {
        auto bus = sdbus::createProxy(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
        bool hasOwner = false;
        bus->callMethod("NameHasOwner").onInterface("org.freedesktop.DBus").withArguments(std::string(service)).storeResultsTo(hasOwner);
        if (hasOwner) return true;
        // logind is usually started on demand; ask whether it can be.
        std::vector<std::string> activatable;
        bus->callMethod("ListActivatableNames").onInterface("org.freedesktop.DBus").storeResultsTo(activatable);
        return std::find(activatable.begin(), activatable.end(), service) != activatable.end();
    } catch (const sdbus::Error&) {
        return false;
    }
}

std::unique_ptr<PowerAssertions> LogindPowerAssertions::makeBest() {
    std::unique_ptr<sdbus::IConnection> connection;
    try {
        connection = sdbus::createSystemBusConnection();
    } catch (const sdbus::Error& failure) {
        return std::make_unique<InMemoryPowerAssertions>("no system bus: " + failure.getMessage());
    }
    if (!hasLogind(*connection)) {
        return std::make_unique<InMemoryPowerAssertions>("the system bus has no logind");
    }
    return std::make_unique<LogindPowerAssertions>(std::move(connection));
}

} // namespace tavrick
