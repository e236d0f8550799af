#pragma once

#include "VaultKit/VaultKeychain.h"

namespace tavrick {

// The authentication prompt on this machine: there is no biometric sensor and no system prompt
// the vault can put in front of a stored passphrase, so every policy answers that it cannot be
// evaluated, and an evaluation fails without asking anyone.
class LinuxAuthenticator final : public Authenticator {
public:
    Answer canEvaluatePolicy(AuthenticationPolicy policy) override;
    void evaluatePolicy(AuthenticationPolicy policy, const std::string& reason,
                        std::function<void(bool, std::optional<AuthenticationError>)> done) override;
};

} // namespace tavrick
