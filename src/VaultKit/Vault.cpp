#include "VaultKit/Vault.h"

#include "CoreKit/UnicodeText.h"

#include <algorithm>
#include <map>
#include <variant>

namespace tavrick {

namespace {

// The outcome of a background step: a value or the text of why not.
template <class T>
using Outcome = std::variant<T, std::string>;

} // namespace

Vault::Vault(VaultKeychain keychain, Authenticator& authenticator, Scheduler& scheduler, std::int64_t rounds)
    : keychain_(std::move(keychain)), authenticator_(authenticator), scheduler_(scheduler), rounds_(rounds) {
    storage.set(keychain_.presence());
    try {
        protection.set(keychain_.load().protection);
    } catch (const std::exception&) {
        protection.set(std::nullopt);
    }
}

template <class Work, class Then>
void Vault::background(Work work, Then then) {
    std::weak_ptr<int> alive = alive_;
    scheduler_.global(QoS::userInitiated, [this, alive, work = std::move(work), then = std::move(then)]() mutable {
        auto result = work();
        scheduler_.async([this, alive, result = std::move(result), then = std::move(then)]() mutable {
            if (alive.lock()) then(std::move(result));
        });
    });
}

void Vault::fail(const std::exception& error) {
    lastError.set(std::string(error.what()));
    throw;
}

std::vector<VaultItem> Vault::sorted() const {
    std::vector<VaultItem> out = items.get();
    std::stable_sort(out.begin(), out.end(), [](const VaultItem& a, const VaultItem& b) {
        return UnicodeText::folded(a.effectiveTitle()) < UnicodeText::folded(b.effectiveTitle());
    });
    return out;
}

bool Vault::hasUnlockShortcut() const {
    return protection.get() == VaultCrypto::Protection::passphrase &&
           VaultUnlockShortcut::isArmed(keychain_.store(), keychain_.service());
}

Biometrics::Availability Vault::biometrics() { return Biometrics(authenticator_).availability(); }

void Vault::create(std::optional<std::string> passphrase, Done done) {
    storage.set(keychain_.presence());
    if (storage.get().kind != VaultKeychain::Presence::Kind::none) {
        // A vault that exists, or one that can't be read, is never written over.
        if (passphrase) VaultCrypto::wipe(*passphrase);
        const VaultError error(VaultError::Case::unreadable);
        lastError.set(std::string(error.what()));
        done(std::string(error.what()));
        return;
    }
    const std::uint64_t generation = generation_;
    const std::int64_t rounds = rounds_;
    using Made = std::pair<VaultCrypto::Envelope, std::optional<VaultCrypto::SymmetricKey>>;
    background(
        [passphrase = std::move(passphrase), rounds]() mutable -> Outcome<Made> {
            try {
                if (!passphrase) return Made{VaultCrypto::makeUnprotectedEnvelope({}), std::nullopt};
                auto [envelope, key] = VaultCrypto::seal({}, *passphrase, rounds);
                VaultCrypto::wipe(*passphrase);
                return Made{std::move(envelope), key};
            } catch (const std::exception& error) {
                if (passphrase) VaultCrypto::wipe(*passphrase);
                return std::string(error.what());
            }
        },
        [this, generation, done = std::move(done)](Outcome<Made> outcome) {
            if (auto* error = std::get_if<std::string>(&outcome)) {
                lastError.set(*error);
                return done(*error);
            }
            auto& [envelope, key] = std::get<Made>(outcome);
            try {
                keychain_.save(envelope);
            } catch (const std::exception& error) {
                lastError.set(std::string(error.what()));
                return done(std::string(error.what()));
            }
            storage.set({VaultKeychain::Presence::Kind::sealed, {}});
            protection.set(envelope.protection);
            // Stored either way; a lock meanwhile means the user wants it closed.
            if (generation == generation_) {
                envelope_ = envelope;
                key_ = key;
                items.set({});
                isUnlocked.set(true);
            }
            lastError.set(std::nullopt);
            done(std::nullopt);
        });
}

void Vault::unlock(std::string passphrase, Done done) {
    VaultCrypto::Envelope envelope;
    try {
        envelope = keychain_.load();
    } catch (const std::exception& error) {
        VaultCrypto::wipe(passphrase);
        storage.set(keychain_.presence());
        try {
            protection.set(keychain_.load().protection);
        } catch (const std::exception&) {
            protection.set(std::nullopt);
        }
        lastError.set(std::string(error.what()));
        return done(std::string(error.what()));
    }
    const std::uint64_t generation = generation_;
    using Opened = std::pair<VaultCrypto::SymmetricKey, std::vector<VaultItem>>;
    background(
        [envelope, passphrase = std::move(passphrase)]() mutable -> Outcome<Opened> {
            try {
                auto key = VaultCrypto::unlock(envelope, passphrase);
                VaultCrypto::wipe(passphrase);
                auto opened = VaultCrypto::items(envelope, key);
                return Opened{key, std::move(opened)};
            } catch (const std::exception& error) {
                VaultCrypto::wipe(passphrase);
                return std::string(error.what());
            }
        },
        [this, envelope, generation, done = std::move(done)](Outcome<Opened> outcome) {
            if (auto* error = std::get_if<std::string>(&outcome)) {
                lastError.set(*error);
                return done(*error);
            }
            // Locked while deriving: a late result must not reopen the vault.
            if (generation != generation_) return done(std::nullopt);
            auto& [key, opened] = std::get<Opened>(outcome);
            envelope_ = envelope;
            key_ = key;
            items.set(std::move(opened));
            isUnlocked.set(true);
            protection.set(envelope.protection);
            lastError.set(std::nullopt);
            done(std::nullopt);
        });
}

void Vault::unlockWithShortcut(Done done) {
    std::weak_ptr<int> alive = alive_;
    VaultUnlockShortcut::passphrase(
        keychain_.store(), authenticator_, "unlock your Tavrick vault", keychain_.service(),
        [this, alive, done = std::move(done)](std::optional<std::string> passphrase, std::optional<VaultError> error,
                                             std::optional<std::string> other) mutable {
            scheduler_.async([this, alive, passphrase = std::move(passphrase), error, other,
                              done = std::move(done)]() mutable {
                if (!alive.lock()) return;
                if (passphrase) return unlock(std::move(*passphrase), std::move(done));
                const std::string text = error ? std::string(error->what()) : other.value_or("");
                if (!error || error->which() != VaultError::Case::cancelled) lastError.set(text);
                done(text);
            });
        });
}

void Vault::open() {
    try {
        const auto envelope = keychain_.load();
        if (envelope.protection != VaultCrypto::Protection::unprotected)
            throw VaultCrypto::Error(VaultCrypto::Failure::wrongPassphrase);
        auto opened = VaultCrypto::unprotectedItems(envelope);
        envelope_ = envelope;
        key_.reset();
        items.set(std::move(opened));
        isUnlocked.set(true);
        protection.set(envelope.protection);
        lastError.set(std::nullopt);
    } catch (const std::exception& error) {
        fail(error);
    }
}

void Vault::lock() {
    ++generation_;
    key_.reset();
    items.set({});
    isUnlocked.set(false);
    lastError.set(std::nullopt);
}

void Vault::requireOpen() const {
    if (!isUnlocked.get() || !envelope_) throw VaultCrypto::Error(VaultCrypto::Failure::locked);
}

void Vault::commit(std::vector<VaultItem> next) {
    if (!envelope_) throw VaultCrypto::Error(VaultCrypto::Failure::locked);
    VaultCrypto::Envelope sealed;
    if (envelope_->protection == VaultCrypto::Protection::unprotected) {
        sealed = VaultCrypto::makeUnprotectedEnvelope(next);
    } else {
        if (!key_) throw VaultCrypto::Error(VaultCrypto::Failure::locked);
        sealed = VaultCrypto::reseal(next, *envelope_, *key_);
    }
    // The store and the memory only move together.
    keychain_.save(sealed);
    envelope_ = std::move(sealed);
    items.set(std::move(next));
    lastError.set(std::nullopt);
}

void Vault::save(VaultItem item) {
    try {
        requireOpen();
        item.updated = scheduler_.clock().now();
        std::vector<VaultItem> next;
        for (const auto& existing : items.get())
            if (existing.id != item.id) next.push_back(existing);
        next.push_back(std::move(item));
        commit(std::move(next));
    } catch (const std::exception& error) {
        fail(error);
    }
}

void Vault::remove(const UUID& id) {
    try {
        requireOpen();
        std::vector<VaultItem> next;
        for (const auto& existing : items.get())
            if (existing.id != id) next.push_back(existing);
        commit(std::move(next));
    } catch (const std::exception& error) {
        fail(error);
    }
}

Vault::MergeCount Vault::merge(const std::vector<VaultItem>& incoming) {
    try {
        requireOpen();
        std::map<UUID, VaultItem> byId;
        for (const auto& item : items.get()) byId[item.id] = item;
        MergeCount count;
        for (const auto& item : incoming) {
            (byId.count(item.id) ? count.replaced : count.added) += 1;
            byId[item.id] = item;  // the incoming one wins, whatever its date
        }
        std::vector<VaultItem> next;
        for (auto& [id, item] : byId) next.push_back(std::move(item));
        commit(std::move(next));
        return count;
    } catch (const std::exception& error) {
        fail(error);
    }
}

void Vault::setProtection(std::optional<std::string> passphrase, Done done) {
    try {
        requireOpen();
    } catch (const std::exception& error) {
        if (passphrase) VaultCrypto::wipe(*passphrase);
        lastError.set(std::string(error.what()));
        return done(std::string(error.what()));
    }
    if (!passphrase) {
        try {
            VaultUnlockShortcut::disarm(keychain_.store(), keychain_.service());
            auto envelope = VaultCrypto::makeUnprotectedEnvelope(items.get());
            keychain_.save(envelope);
            envelope_ = std::move(envelope);
            key_.reset();
            protection.set(VaultCrypto::Protection::unprotected);
            lastError.set(std::nullopt);
            return done(std::nullopt);
        } catch (const std::exception& error) {
            lastError.set(std::string(error.what()));
            return done(std::string(error.what()));
        }
    }
    const std::uint64_t generation = generation_;
    const std::int64_t rounds = rounds_;
    using Made = std::pair<VaultCrypto::Envelope, VaultCrypto::SymmetricKey>;
    background(
        [current = items.get(), passphrase = std::move(*passphrase), rounds]() mutable -> Outcome<Made> {
            try {
                auto made = VaultCrypto::seal(current, passphrase, rounds);
                VaultCrypto::wipe(passphrase);
                return made;
            } catch (const std::exception& error) {
                VaultCrypto::wipe(passphrase);
                return std::string(error.what());
            }
        },
        [this, generation, done = std::move(done)](Outcome<Made> outcome) {
            if (auto* error = std::get_if<std::string>(&outcome)) {
                lastError.set(*error);
                return done(*error);
            }
            if (generation != generation_) {
                // Locked meanwhile: the items sealed may be stale, so nothing is written.
                const std::string text(VaultCrypto::description(VaultCrypto::Failure::locked));
                lastError.set(text);
                return done(text);
            }
            auto& [envelope, key] = std::get<Made>(outcome);
            try {
                keychain_.save(envelope);
            } catch (const std::exception& error) {
                lastError.set(std::string(error.what()));
                return done(std::string(error.what()));
            }
            envelope_ = envelope;
            key_ = key;
            protection.set(VaultCrypto::Protection::passphrase);
            // What the shortcut keeps is the old passphrase now.
            VaultUnlockShortcut::disarm(keychain_.store(), keychain_.service());
            lastError.set(std::nullopt);
            done(std::nullopt);
        });
}

void Vault::armUnlockShortcut(std::string passphrase, std::function<void(bool, std::optional<std::string>)> done) {
    VaultCrypto::Envelope envelope;
    try {
        envelope = keychain_.load();
        if (envelope.protection != VaultCrypto::Protection::passphrase)
            throw VaultCrypto::Error(VaultCrypto::Failure::corrupt);
    } catch (const std::exception& error) {
        VaultCrypto::wipe(passphrase);
        lastError.set(std::string(error.what()));
        return done(false, std::string(error.what()));
    }
    auto shared = std::make_shared<std::string>(std::move(passphrase));
    background(
        [envelope, shared]() -> Outcome<bool> {
            try {
                VaultCrypto::unlock(envelope, *shared);
                return true;
            } catch (const std::exception& error) {
                return std::string(error.what());
            }
        },
        [this, shared, done = std::move(done)](Outcome<bool> outcome) {
            if (auto* error = std::get_if<std::string>(&outcome)) {
                VaultCrypto::wipe(*shared);
                lastError.set(*error);
                return done(false, *error);
            }
            const bool armed = VaultUnlockShortcut::arm(keychain_.store(), *shared, keychain_.service());
            VaultCrypto::wipe(*shared);
            done(armed, std::nullopt);
        });
}

void Vault::disarmUnlockShortcut() { VaultUnlockShortcut::disarm(keychain_.store(), keychain_.service()); }

void Vault::eraseEverything() {
    try {
        keychain_.deleteEverything();
    } catch (const std::exception& error) {
        fail(error);
    }
    disarmUnlockShortcut();
    lock();
    envelope_.reset();
    storage.set({VaultKeychain::Presence::Kind::none, {}});
    protection.set(std::nullopt);
}

} // namespace tavrick
