#pragma once

#include "CoreKit/SecretStore.h"
#include "VaultKit/VaultCrypto.h"

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

namespace tavrick {

// Failures of the vault's storage; `what()` is the sentence a user reads.
class VaultError : public std::runtime_error {
public:
    enum class Case { keychain, notFound, cancelled, locked, unreadable, encodingFailed };
    explicit VaultError(Case c, std::int32_t status = 0);
    // The storage's statuses mapped the one way every operation maps them.
    static VaultError fromStatus(SecretStatus status);
    Case which() const { return case_; }
    std::int32_t status() const { return status_; }

private:
    Case case_;
    std::int32_t status_;
};

// The one stored record of the vault: the envelope's JSON under account "envelope".
class VaultKeychain {
public:
    static constexpr const char* defaultService = "com.orvell.tavrick.vault";
    static constexpr const char* envelopeAccount = "envelope";

    struct Presence {
        enum class Kind { unreadable, none, sealed } kind = Kind::none;
        std::string message;  // why it is unreadable
        friend bool operator==(const Presence&, const Presence&) = default;
    };

    VaultKeychain(SecretStore& store, std::string service) : store_(&store), service_(std::move(service)) {}
    const std::string& service() const { return service_; }
    SecretStore& store() const { return *store_; }

    // The stored envelope, validated; a passphrase envelope must have a salt and a round count a
    // stored vault may have. Throws VaultError.
    VaultCrypto::Envelope load() const;
    Presence presence() const;
    void save(const VaultCrypto::Envelope& envelope) const;
    // Every item of the service; nothing there counts as done.
    void deleteEverything() const;

private:
    SecretStore* store_;
    std::string service_;
};

// The platform's authentication prompt, a fresh context for each question.
struct AuthenticationError {
    std::string domain;
    int code = 0;
    std::string description;
};

enum class AuthenticationPolicy { deviceOwnerAuthenticationWithBiometrics = 1, deviceOwnerAuthentication = 2 };

class Authenticator {
public:
    virtual ~Authenticator() = default;
    struct Answer {
        bool can = false;
        std::optional<AuthenticationError> error;
    };
    virtual Answer canEvaluatePolicy(AuthenticationPolicy policy) = 0;
    // `done(success, error)`, on any thread.
    virtual void evaluatePolicy(AuthenticationPolicy policy, const std::string& reason,
                                std::function<void(bool, std::optional<AuthenticationError>)> done) = 0;
};

class Biometrics {
public:
    struct Availability {
        enum class Kind { touchID, password, none } kind = Kind::none;
        std::string reason;
        bool isAvailable() const { return kind != Kind::none; }
        std::string description() const;
        friend bool operator==(const Availability&, const Availability&) = default;
    };
    explicit Biometrics(Authenticator& authenticator) : authenticator_(authenticator) {}
    Availability availability();
    // Why biometrics were refused at the last check: domain, code and description.
    const std::optional<std::string>& biometryRefusal() const { return biometryRefusal_; }
    // The note the coordinator writes at start.
    std::string note();

private:
    Authenticator& authenticator_;
    std::optional<std::string> biometryRefusal_;
};

// The passphrase kept behind a prompt, under account "vault-key-shortcut".
namespace VaultUnlockShortcut {
inline constexpr const char* account = "vault-key-shortcut";
bool isArmed(SecretStore& store, const std::string& service);
bool arm(SecretStore& store, std::string_view passphrase, const std::string& service);
void disarm(SecretStore& store, const std::string& service);
// `done` gets the passphrase, or the VaultError / AuthenticationError text.
void passphrase(SecretStore& store, Authenticator& authenticator, const std::string& reason,
                const std::string& service,
                std::function<void(std::optional<std::string> passphrase, std::optional<VaultError> error,
                                   std::optional<std::string> otherError)> done);
} // namespace VaultUnlockShortcut

} // namespace tavrick
