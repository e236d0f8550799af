#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"
#include "VaultKit/VaultCrypto.h"
#include "VaultKit/VaultKeychain.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// The open vault: its decrypted entries while unlocked, and the only writer of its stored
// envelope. Confined to the main queue; key derivation runs on the global pool and its result is
// accepted only if no lock happened meanwhile.
class Vault {
public:
    // `error` is the failure's text, nothing on success.
    using Done = std::function<void(std::optional<std::string> error)>;

    Vault(VaultKeychain keychain, Authenticator& authenticator, Scheduler& scheduler,
          std::int64_t rounds = VaultCrypto::iterations);

    Observable<std::vector<VaultItem>> items;
    Observable<bool> isUnlocked{false};
    Observable<VaultKeychain::Presence> storage;
    Observable<std::optional<std::string>> lastError;
    Observable<std::optional<VaultCrypto::Protection>> protection;

    bool exists() const { return storage.get().kind == VaultKeychain::Presence::Kind::sealed; }
    bool isEmpty() const { return items.get().empty(); }
    // By title, case-insensitive, stable.
    std::vector<VaultItem> sorted() const;
    bool hasUnlockShortcut() const;
    Biometrics::Availability biometrics();
    Authenticator& authenticator() const { return authenticator_; }
    const VaultKeychain& keychain() const { return keychain_; }

    void create(std::optional<std::string> passphrase, Done done);
    void unlock(std::string passphrase, Done done);
    void unlockWithShortcut(Done done);
    void open();
    void lock();
    void save(VaultItem item);
    void remove(const UUID& id);
    struct MergeCount {
        int added = 0;
        int replaced = 0;
    };
    MergeCount merge(const std::vector<VaultItem>& incoming);
    void setProtection(std::optional<std::string> passphrase, Done done);
    void changePassphrase(std::string passphrase, Done done) { setProtection(std::move(passphrase), std::move(done)); }
    // `done(armed, error)`.
    void armUnlockShortcut(std::string passphrase, std::function<void(bool, std::optional<std::string>)> done);
    void disarmUnlockShortcut();
    void eraseEverything();

private:
    void commit(std::vector<VaultItem> next);
    void requireOpen() const;
    // Runs `work` on the pool and `then` on the main queue, unless the vault is gone by then.
    template <class Work, class Then>
    void background(Work work, Then then);
    [[noreturn]] void fail(const std::exception& error);

    VaultKeychain keychain_;
    Authenticator& authenticator_;
    Scheduler& scheduler_;
    std::int64_t rounds_;
    std::optional<VaultCrypto::SymmetricKey> key_;
    std::optional<VaultCrypto::Envelope> envelope_;
    std::uint64_t generation_ = 0;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

} // namespace tavrick
