#include "VaultKit/VaultKeychain.h"

namespace tavrick {

namespace {

std::string text(VaultError::Case c, std::int32_t status) {
    switch (c) {
    case VaultError::Case::keychain: {
        std::string message(tavrick::message(static_cast<SecretStatus>(status)));
        if (message.empty()) message = "no message";
        return "The keychain refused it (" + std::to_string(status) + ": " + message + ").";
    }
    case VaultError::Case::notFound: return "There is no vault stored on this Mac yet.";
    case VaultError::Case::cancelled: return "Cancelled.";
    case VaultError::Case::locked: return "The keychain is locked. Unlock the Mac and try again.";
    case VaultError::Case::unreadable: return "The stored vault could not be read. It may be damaged.";
    case VaultError::Case::encodingFailed: return "The vault could not be written.";
    }
    return "The vault could not be written.";
}

} // namespace

VaultError::VaultError(Case c, std::int32_t status) : std::runtime_error(text(c, status)), case_(c), status_(status) {}

VaultError VaultError::fromStatus(SecretStatus status) {
    switch (status) {
    case SecretStatus::itemNotFound: return VaultError(Case::notFound);
    case SecretStatus::interactionNotAllowed: return VaultError(Case::locked);
    default: return VaultError(Case::keychain, static_cast<std::int32_t>(status));
    }
}

VaultCrypto::Envelope VaultKeychain::load() const {
    auto copy = store_->copy(service_, envelopeAccount);
    if (copy.status != SecretStatus::success) throw VaultError::fromStatus(copy.status);
    if (!copy.data) throw VaultError(VaultError::Case::unreadable);
    VaultCrypto::Envelope envelope;
    try {
        envelope = VaultCrypto::decodeEnvelope(*copy.data);
    } catch (const VaultCrypto::Error&) {
        throw VaultError(VaultError::Case::unreadable);
    }
    if (envelope.version != VaultCrypto::currentVersion) throw VaultError(VaultError::Case::unreadable);
    if (envelope.protection == VaultCrypto::Protection::passphrase &&
        (envelope.iterations < VaultCrypto::minimumIterations || envelope.iterations > VaultCrypto::maximumIterations ||
         envelope.salt.empty())) {
        throw VaultError(VaultError::Case::unreadable);
    }
    return envelope;
}

VaultKeychain::Presence VaultKeychain::presence() const {
    try {
        load();
        return {Presence::Kind::sealed, {}};
    } catch (const VaultError& error) {
        if (error.which() == VaultError::Case::notFound) return {Presence::Kind::none, {}};
        return {Presence::Kind::unreadable, error.what()};
    }
}

void VaultKeychain::save(const VaultCrypto::Envelope& envelope) const {
    std::string data;
    try {
        data = VaultCrypto::encode(envelope);
    } catch (const std::exception&) {
        throw VaultError(VaultError::Case::encodingFailed);
    }
    SecretStatus status = store_->update(service_, envelopeAccount, data);
    if (status == SecretStatus::itemNotFound)
        status = store_->add(service_, envelopeAccount, data, SecretAccessibility::whenUnlockedThisDeviceOnly);
    if (status != SecretStatus::success) throw VaultError::fromStatus(status);
}

void VaultKeychain::deleteEverything() const {
    const SecretStatus status = store_->remove(service_, std::nullopt);
    if (status != SecretStatus::success && status != SecretStatus::itemNotFound) throw VaultError::fromStatus(status);
}

std::string Biometrics::Availability::description() const {
    switch (kind) {
    case Kind::touchID: return "Touch ID";
    case Kind::password: return "your login password";
    case Kind::none: return "no way to authenticate";
    }
    return "no way to authenticate";
}

Biometrics::Availability Biometrics::availability() {
    auto biometric = authenticator_.canEvaluatePolicy(AuthenticationPolicy::deviceOwnerAuthenticationWithBiometrics);
    if (biometric.can) return {Availability::Kind::touchID, {}};
    biometryRefusal_.reset();
    if (biometric.error)
        biometryRefusal_ = biometric.error->domain + " " + std::to_string(biometric.error->code) + ": " +
                           biometric.error->description;
    auto password = authenticator_.canEvaluatePolicy(AuthenticationPolicy::deviceOwnerAuthentication);
    if (password.can) return {Availability::Kind::password, {}};
    return {Availability::Kind::none,
            password.error ? password.error->description : std::string("no way to authenticate on this Mac")};
}

std::string Biometrics::note() {
    const Availability answer = availability();
    switch (answer.kind) {
    case Availability::Kind::touchID: return "can unlock with Touch ID";
    case Availability::Kind::password:
        return "can unlock with the login password only — biometrics refused: " +
               biometryRefusal_.value_or("no reason given");
    case Availability::Kind::none: return "cannot unlock without the passphrase: " + answer.reason;
    }
    return {};
}

namespace VaultUnlockShortcut {

bool isArmed(SecretStore& store, const std::string& service) {
    return store.copy(service, account).status == SecretStatus::success;
}

bool arm(SecretStore& store, std::string_view passphrase, const std::string& service) {
    disarm(store, service);
    return store.add(service, account, passphrase, SecretAccessibility::whenUnlockedThisDeviceOnly) ==
           SecretStatus::success;
}

void disarm(SecretStore& store, const std::string& service) { store.remove(service, std::string(account)); }

void passphrase(SecretStore& store, Authenticator& authenticator, const std::string& reason,
                const std::string& service,
                std::function<void(std::optional<std::string>, std::optional<VaultError>, std::optional<std::string>)>
                    done) {
    auto copy = store.copy(service, account);
    if (copy.status != SecretStatus::success || !copy.data) {
        done(std::nullopt, copy.status == SecretStatus::success ? VaultError(VaultError::Case::notFound)
                                                                : VaultError::fromStatus(copy.status),
             std::nullopt);
        return;
    }
    auto stored = std::make_shared<std::string>(std::move(*copy.data));
    VaultCrypto::wipe(*copy.data);
    authenticator.evaluatePolicy(
        AuthenticationPolicy::deviceOwnerAuthentication, reason,
        [stored, done = std::move(done)](bool success, std::optional<AuthenticationError> error) {
            if (success) {
                done(*stored, std::nullopt, std::nullopt);
            } else if (!error || error->code == -2 || error->code == -9 || error->code == -4) {
                done(std::nullopt, VaultError(VaultError::Case::cancelled), std::nullopt);
            } else {
                done(std::nullopt, std::nullopt, error->description);
            }
            VaultCrypto::wipe(*stored);
        });
}

} // namespace VaultUnlockShortcut

} // namespace tavrick
