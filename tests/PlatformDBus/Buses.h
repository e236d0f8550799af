#pragma once

// Private bus daemons for the desktop adapters' tests, and small stand-ins for the services that
// do not run headless. Each stand-in has a connection of its own with sd-bus's own event thread,
// as a separate program would.
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <sdbus-c++/sdbus-c++.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tavrick::testing {

// A dbus-daemon of its own; `address()` is empty when dbus-daemon is not installed.
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();
    const std::string& address() const { return address_; }
    // Ends the daemon, as a session that logs out would.
    void stop();

private:
    TempDir directory_;
    std::unique_ptr<ChildProcess> daemon_;
    std::string address_;
};

// Sets an environment variable for one test and puts the old value back.
class ScopedEnvironment {
public:
    ScopedEnvironment(std::string name, const std::string& value);
    ~ScopedEnvironment();

private:
    std::string name_;
    std::optional<std::string> old_;
};

// A connection to `address`; once its objects are in place `run` starts its own event thread,
// which ends with it.
class ServiceConnection {
public:
    explicit ServiceConnection(const std::string& address);
    ~ServiceConnection();
    // Takes `name` (when not empty) and starts answering.
    void run(const std::string& name = {});
    // Stops answering; a stand-in calls it before its objects go.
    void stop();
    sdbus::IConnection& operator*() { return *connection_; }
    sdbus::IConnection* operator->() { return connection_.get(); }

private:
    std::unique_ptr<sdbus::IConnection> connection_;
    bool running_ = false;
};

// Collected lines (from the adapters' `note`), safe from any thread.
class Notes {
public:
    std::function<void(const std::string&)> sink();
    std::vector<std::string> lines() const;
    bool contains(const std::string& text) const;
    // Waits for a line containing `text`.
    bool waitFor(const std::string& text, double seconds = 10) const;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> lines_;
};

} // namespace tavrick::testing
