#include "PlatformDBus/Buses.h"
#include "Support/TempDir.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>

namespace tavrick::testing {

namespace {

// A session bus with nothing installed: no service is started on demand, so a test decides
// exactly which services are there.
const char* bareBusConfig = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
    <allow user="*"/>
  </policy>
</busconfig>
)";

} // namespace

PrivateBus::PrivateBus() {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) return;
    writeFile(directory_ / "bus.conf", bareBusConfig);
    daemon_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"/usr/bin/dbus-daemon", "--config-file=" + (directory_ / "bus.conf").string(), "--nofork",
                                 "--nopidfile", "--print-address"},
        std::map<std::string, std::string>{{"PATH", "/usr/bin:/bin"}});
    if (!daemon_->waitForOutput("\n", 10)) return;
    address_ = daemon_->output().substr(0, daemon_->output().find('\n'));
}

PrivateBus::~PrivateBus() {
    stop();
}

void PrivateBus::stop() {
    if (!daemon_) return;
    daemon_->signal(SIGTERM);
    daemon_->wait(5);
    daemon_.reset();
}

ScopedEnvironment::ScopedEnvironment(std::string name, const std::string& value) : name_(std::move(name)) {
    if (const char* old = std::getenv(name_.c_str())) old_ = old;
    ::setenv(name_.c_str(), value.c_str(), 1);
}

ScopedEnvironment::~ScopedEnvironment() {
    old_ ? ::setenv(name_.c_str(), old_->c_str(), 1) : ::unsetenv(name_.c_str());
}

ServiceConnection::ServiceConnection(const std::string& address)
    : connection_(sdbus::createSessionBusConnectionWithAddress(address)) {}

void ServiceConnection::run(const std::string& name) {
    if (!name.empty()) connection_->requestName(name);
    connection_->enterEventLoopAsync();
    running_ = true;
}

void ServiceConnection::stop() {
    if (running_) connection_->leaveEventLoop();
    running_ = false;
}

ServiceConnection::~ServiceConnection() {
    stop();
}

std::function<void(const std::string&)> Notes::sink() {
    return [this](const std::string& line) {
        std::lock_guard lock(mutex_);
        lines_.push_back(line);
        changed_.notify_all();
    };
}

std::vector<std::string> Notes::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

bool Notes::contains(const std::string& text) const {
    std::lock_guard lock(mutex_);
    for (const auto& line : lines_) {
        if (line.find(text) != std::string::npos) return true;
    }
    return false;
}

bool Notes::waitFor(const std::string& text, double seconds) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::duration<double>(seconds), [&] {
        for (const auto& line : lines_) {
            if (line.find(text) != std::string::npos) return true;
        }
        return false;
    });
}

} // namespace tavrick::testing
