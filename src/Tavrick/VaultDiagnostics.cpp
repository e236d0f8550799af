#include "Tavrick/Diagnostics.h"

#include "Platform/Linux/FileSecretStore.h"
#include "Platform/Linux/LinuxAuthenticator.h"
#include "VaultKit/VaultCrypto.h"
#include "VaultKit/VaultKeychain.h"

#include <string>
#include <vector>

namespace tavrick::Diagnostics {

namespace {

const std::string selfTestService = "com.orvell.tavrick.selftest.vault";
const std::string openService = "com.orvell.tavrick.selftest.vault-open";

bool contains(const std::string& haystack, const std::string& needle) {
    return haystack.find(needle) != std::string::npos;
}

} // namespace

int runVaultSelfTestAndExit(Context& context) {
    auto& out = context.out;
    FileSecretStore store(FileSecretStore::defaultFile());
    // Made up for the test: 19 characters of passphrase, 22 of key.
    const std::string passphrase = "selftest-passphrase";
    const std::string secret = "sk-test-7Qm2Xv9Lp4Rt8Z";
    VaultItem item;
    item.kind = VaultKind::apiKey;
    item.title = "Tavrick self-test entry";
    item.set("key", secret);
    const std::string kind(VaultKinds::id(item.kind));
    bool good = true;

    // 1.
    VaultCrypto::Envelope envelope;
    try {
        envelope = VaultCrypto::makeEnvelope({item}, passphrase);
    } catch (const std::exception&) {
        out << "✗ could not seal a vault at all\n";
        return 1;
    }
    const VaultKeychain keychain(store, selfTestService);
    try {
        keychain.save(envelope);
    } catch (const std::exception& error) {
        out << "✗ could not store it: " << error.what() << "\n";
        return 1;
    }
    out << "stored under service " << selfTestService << "\n";

    // 2. The bytes as another process would find them.
    const auto copy = store.copy(selfTestService, VaultKeychain::envelopeAccount);
    if (copy.status != SecretStatus::success || !copy.data) {
        out << "✗ could not read the bytes back to inspect them (" << message(copy.status) << ")\n";
        return 1;
    }
    const std::string& bytes = *copy.data;

    // 3.
    std::vector<std::string> leaks;
    if (contains(bytes, secret)) leaks.push_back("the secret");
    if (contains(bytes, item.title)) leaks.push_back("the name");
    if (contains(bytes, kind)) leaks.push_back("the kind");
    if (!leaks.empty()) {
        std::string what;
        for (const auto& leak : leaks) what += (what.empty() ? "" : ", ") + leak;
        out << "✗ the stored bytes leak: " << what << "\n";
        good = false;
    } else {
        out << "✓ the stored bytes contain no secret, no name and no kind\n";
    }

    // 4.
    try {
        const auto stored = keychain.load();
        bool wrongOpened = true;
        try {
            VaultCrypto::unlock(stored, passphrase + "!");
        } catch (const VaultCrypto::Error&) {
            wrongOpened = false;
        }
        out << (wrongOpened ? "✗ a wrong passphrase opened it\n" : "✓ a wrong passphrase is refused\n");
        good = good && !wrongOpened;
        bool recovered = false;
        try {
            const auto items = VaultCrypto::items(stored, VaultCrypto::unlock(stored, passphrase));
            recovered = items.size() == 1 && items[0].value("key") == secret;
        } catch (const std::exception&) {
        }
        out << (recovered ? "✓ the right one gives the value back\n"
                          : "✗ the right passphrase did not recover the value\n");
        good = good && recovered;
    } catch (const std::exception& error) {
        out << "✗ could not read the bytes back to inspect them (" << error.what() << ")\n";
        return 1;
    }

    // 5.
    out << "Left in place for another process to try:\n"
        << "  security find-generic-password -s " << selfTestService << " -w\n"
        << "It must print bytes that mean nothing.\n"
        << "  security delete-generic-password -s " << selfTestService << "\n"
        << "  (on this machine the store is " << store.file().string() << ")\n";

    // 6.
    out << "── with no passphrase, for comparison\n";
    const VaultKeychain open(store, openService);
    bool stored = false;
    try {
        open.save(VaultCrypto::makeUnprotectedEnvelope({item}));
        stored = true;
        out << "  stored under " << openService << "\n";
    } catch (const std::exception&) {
        out << "  (nothing stored)\n";
    }
    const auto plain = store.copy(openService, VaultKeychain::envelopeAccount);
    std::string payload;
    try {
        if (stored && plain.data) {
            const auto envelope = VaultCrypto::decodeEnvelope(*plain.data);
            payload.assign(envelope.payload.begin(), envelope.payload.end());
        }
    } catch (const std::exception&) {
    }
    if (contains(payload, secret)) {
        out << "✓ the payload is plain text, as an unprotected vault should be\n";
    } else {
        out << "✗ an unprotected vault should hold the value in the clear and does not\n";
        good = false;
    }
    VaultCrypto::wipe(payload);
    return good ? 0 : 1;
}

int runTouchIDProbeAndExit(Context& context) {
    auto& out = context.out;
    LinuxAuthenticator authenticator;
    const auto biometric = authenticator.canEvaluatePolicy(AuthenticationPolicy::deviceOwnerAuthenticationWithBiometrics);
    const auto password = authenticator.canEvaluatePolicy(AuthenticationPolicy::deviceOwnerAuthentication);
    Biometrics biometrics(authenticator);
    const auto availability = biometrics.availability();
    out << "can ask for biometrics: " << (biometric.can ? "true" : "false") << "\n";
    out << "can ask for password:   " << (password.can ? "true" : "false") << "\n";
    if (!biometric.can) {
        out << "  biometrics unavailable: "
            << (biometric.error ? biometric.error->description
                                : availability.kind == Biometrics::Availability::Kind::none ? availability.reason
                                                                                            : "no reason given")
            << "\n";
    }
    out << "biometry type: " << (biometric.can ? "Touch ID" : "none") << "\n";
    // The secret store here keeps items without any access control, so none of the guarded
    // shapes can even be described to it; nothing is written.
    const char* shapes[] = {"userPresence, file keychain", "userPresence, data-protection keychain",
                            "biometryCurrentSet, data-protection", "biometryAny, data-protection",
                            "biometryAny, file keychain"};
    for (const char* shape : shapes) out << shape << ": could not build the access control\n";
    out << "✗ No keychain shape will hold a guarded item in this app.\n"
        << "  Touch ID can still be ASKED for — see the first two lines — but it\n"
        << "  cannot be what holds the key. Anything built on it would be a\n"
        << "  prompt in front of a key any process here can already read.\n";
    return 1;
}

} // namespace tavrick::Diagnostics
