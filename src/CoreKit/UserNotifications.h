#pragma once

#include <functional>
#include <optional>
#include <string>

namespace tavrick {

// The platform's notification centre: banners that stay in the system's list.
class UserNotificationCenter {
public:
    // Alert (4) and sound (2): what the program asks for.
    static constexpr int alertAndSound = 6;

    using AuthorizationReply = std::function<void(bool granted, const std::optional<std::string>& error)>;

    virtual ~UserNotificationCenter() = default;
    // The reply may come on any thread.
    virtual void requestAuthorization(int options, AuthorizationReply reply) = 0;
    // With the default sound, shown at once. A later request with the same identifier replaces it.
    virtual void add(const std::string& identifier, const std::string& title, const std::string& body) = 0;
};

} // namespace tavrick
