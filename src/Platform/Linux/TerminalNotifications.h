#pragma once

#include "CoreKit/UserNotifications.h"

#include <cstdio>
#include <functional>
#include <string>
#include <mutex>

namespace tavrick {

// Notifications as lines on the terminal, always allowed: "🔔 Back to work — Focus finished."
class TerminalNotifications final : public UserNotificationCenter {
public:
    explicit TerminalNotifications(std::FILE* out = stdout) : out_(out) {}
    void requestAuthorization(int options, AuthorizationReply reply) override;
    void add(const std::string& identifier, const std::string& title, const std::string& body) override;
    // Where the lines go instead of `out` while set (a menu drawn over the terminal).
    void setLineSink(std::function<void(const std::string&)> sink);

private:
    std::FILE* out_;
    std::mutex mutex_;
    std::function<void(const std::string&)> sink_;
};

} // namespace tavrick
