#pragma once

#include "CoreKit/UserNotifications.h"

#include <cstdio>
#include <mutex>

namespace tavrick {

// Notifications as lines on the terminal, always allowed: "🔔 Back to work — Focus finished."
class TerminalNotifications final : public UserNotificationCenter {
public:
    explicit TerminalNotifications(std::FILE* out = stdout) : out_(out) {}
    void requestAuthorization(int options, AuthorizationReply reply) override;
    void add(const std::string& identifier, const std::string& title, const std::string& body) override;

private:
    std::FILE* out_;
    std::mutex mutex_;
};

} // namespace tavrick
