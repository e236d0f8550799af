#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

namespace tavrick {

// What the platform says of the helper's registration.
enum class HelperServiceStatus { notRegistered, enabled, requiresApproval, notFound, unknown };

// The platform's side of installing the helper, behind which the controller runs against a fake.
class FanHelperInstaller {
public:
    virtual ~FanHelperInstaller() = default;
    virtual HelperServiceStatus status() = 0;
    // Throws std::runtime_error with the platform's words.
    virtual void registerHelper() = 0;
    virtual void unregister(std::function<void(std::optional<std::string> error)> done) = 0;
    virtual void openLoginItems() = 0;
};

// Whether this copy carries a helper it may use at all: its identifier is the application's,
// the helper's executable is there, a requirement can be built for its team, and it knows its
// build. Nothing otherwise.
struct FanHelperBundle {
    std::string requirement;
    std::string helperPath;
    std::string appBuild;

    static std::optional<FanHelperBundle> make(const std::string& bundleIdentifier, const std::string& helperPath,
                                               const std::optional<std::string>& team,
                                               const std::optional<std::string>& build);
    std::optional<std::string> bundledHash() const;
};

} // namespace tavrick
