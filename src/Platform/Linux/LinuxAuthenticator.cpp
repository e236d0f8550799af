#include "Platform/Linux/LinuxAuthenticator.h"

namespace tavrick {

Authenticator::Answer LinuxAuthenticator::canEvaluatePolicy(AuthenticationPolicy) { return {false, std::nullopt}; }

void LinuxAuthenticator::evaluatePolicy(AuthenticationPolicy, const std::string&,
                                        std::function<void(bool, std::optional<AuthenticationError>)> done) {
    done(false, AuthenticationError{"com.orvell.tavrick.authentication", -1, "no way to authenticate on this Mac"});
}

} // namespace tavrick
