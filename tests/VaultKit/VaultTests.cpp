#include "VaultKit/SecretClipboard.h"
#include "VaultKit/Vault.h"

#include "CoreKit/ManualScheduler.h"
#include "Platform/Simulated/SimulatedPasteboard.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tavrick {
namespace {

// The lowest round count a stored vault may carry, so the suite stays quick.
constexpr std::int64_t rounds = VaultCrypto::minimumIterations;
const std::string service = "com.orvell.tavrick.test.vault";

class FakeAuthenticator final : public Authenticator {
public:
    Answer biometric{false, AuthenticationError{"com.apple.LocalAuthentication", -6, "No biometrics here."}};
    Answer password{false, std::nullopt};
    bool succeeds = true;
    std::optional<AuthenticationError> error;
    Answer canEvaluatePolicy(AuthenticationPolicy policy) override {
        return policy == AuthenticationPolicy::deviceOwnerAuthenticationWithBiometrics ? biometric : password;
    }
    void evaluatePolicy(AuthenticationPolicy, const std::string&,
                        std::function<void(bool, std::optional<AuthenticationError>)> done) override {
        done(succeeds, error);
    }
};

struct Fixture {
    ManualScheduler scheduler;
    InMemorySecretStore store;
    FakeAuthenticator authenticator;
    std::unique_ptr<Vault> vault = make();

    std::unique_ptr<Vault> make() {
        return std::make_unique<Vault>(VaultKeychain(store, service), authenticator, scheduler, rounds);
    }
    std::optional<std::string> run(const std::function<void(Vault::Done)>& start) {
        std::optional<std::optional<std::string>> result;
        start([&](std::optional<std::string> error) { result = error; });
        scheduler.runUntilIdle();
        EXPECT_TRUE(result.has_value()) << "never finished";
        return result.value_or("never finished");
    }
    std::string stored() { return store.copy(service, "envelope").data.value_or(""); }
};

VaultItem card(std::string title) {
    VaultItem item;
    item.title = std::move(title);
    item.set("number", "4111 1111 1111 1111");
    item.set("cvv", "123");
    return item;
}

TEST(Vault, CreatesSavesLocksAndUnlocksWithoutLeakingIntoTheStore) {
    Fixture f;
    EXPECT_FALSE(f.vault->exists());
    EXPECT_EQ(f.run([&](auto done) { f.vault->create("long enough passphrase", done); }), std::nullopt);
    EXPECT_TRUE(f.vault->isUnlocked.get());
    EXPECT_EQ(f.store.accessibility(service, "envelope"), SecretAccessibility::whenUnlockedThisDeviceOnly);
    f.vault->save(card("Zeta Bank"));
    f.vault->save(card("alpha card"));
    EXPECT_EQ(f.vault->sorted().front().title, "alpha card");
    const std::string bytes = f.stored();
    for (const char* secret : {"4111", "Zeta", "alpha", "card", "cvv", "123"})
        EXPECT_EQ(bytes.find(secret), std::string::npos) << secret;

    // Creating again never writes over the vault that is there.
    EXPECT_EQ(f.run([&](auto done) { f.vault->create(std::nullopt, done); }),
              "The stored vault could not be read. It may be damaged.");
    EXPECT_EQ(f.stored(), bytes);

    f.vault->lock();
    EXPECT_TRUE(f.vault->items.get().empty());
    EXPECT_EQ(f.run([&](auto done) { f.vault->unlock("long enough passphrase!", done); }),
              "That passphrase does not open this vault.");
    EXPECT_FALSE(f.vault->isUnlocked.get());
    EXPECT_EQ(f.vault->lastError.get(), "That passphrase does not open this vault.");
    EXPECT_EQ(f.stored(), bytes);  // a refused attempt writes nothing

    // A second process (a fresh vault over the same store) opens it with the right passphrase.
    auto other = f.make();
    EXPECT_TRUE(other->exists());
    EXPECT_EQ(f.run([&](auto done) { other->unlock("long enough passphrase", done); }), std::nullopt);
    EXPECT_EQ(other->items.get().size(), 2u);
    EXPECT_EQ(other->lastError.get(), std::nullopt);
}

TEST(Vault, ALockDuringDerivationWinsOverTheLateResult) {
    Fixture f;
    f.run([&](auto done) { f.vault->create("long enough passphrase", done); });
    f.vault->save(card("one"));
    f.vault->lock();
    std::optional<std::optional<std::string>> result;
    f.vault->unlock("long enough passphrase", [&](auto error) { result = error; });
    f.vault->lock();  // the user closes the window while the key is being derived
    f.scheduler.runUntilIdle();
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(*result, std::nullopt);
    EXPECT_FALSE(f.vault->isUnlocked.get());
    EXPECT_TRUE(f.vault->items.get().empty());
    EXPECT_THROW(f.vault->save(card("late")), VaultCrypto::Error);
}

TEST(Vault, StoredEnvelopesOutsideTheLimitsAreUnreadableAndNeverOverwritten) {
    struct Case {
        const char* name;
        std::function<void(nlohmann::json&)> spoil;
        bool unreadable;
    } cases[] = {
        {"99999 rounds", [](auto& j) { j["iterations"] = 99999; }, true},
        {"empty salt", [](auto& j) { j["salt"] = ""; }, true},
        {"version 2", [](auto& j) { j["version"] = 2; }, true},
        {"not JSON", [](auto& j) { j = "garbage"; }, true},
        {"unprotected, no salt, no rounds",
         [](auto& j) {
             j = VaultCrypto::toJSON(VaultCrypto::makeUnprotectedEnvelope({}));
         },
         false},
    };
    for (const auto& c : cases) {
        Fixture f;
        auto json = VaultCrypto::toJSON(VaultCrypto::makeEnvelope({}, "pw", rounds));
        c.spoil(json);
        const std::string text = json.dump();
        f.store.add(service, "envelope", text, SecretAccessibility::whenUnlockedThisDeviceOnly);
        f.vault = f.make();
        if (!c.unreadable) {
            EXPECT_TRUE(f.vault->exists()) << c.name;
            continue;
        }
        EXPECT_EQ(f.vault->storage.get().kind, VaultKeychain::Presence::Kind::unreadable) << c.name;
        EXPECT_EQ(f.vault->storage.get().message, "The stored vault could not be read. It may be damaged.");
        EXPECT_EQ(f.run([&](auto done) { f.vault->create(std::nullopt, done); }),
                  "The stored vault could not be read. It may be damaged.")
            << c.name;
        EXPECT_EQ(f.stored(), text) << c.name;
    }
}

TEST(Vault, KeychainStatusesHaveTheirWords) {
    EXPECT_STREQ(VaultError::fromStatus(SecretStatus::itemNotFound).what(), "There is no vault stored on this Mac yet.");
    EXPECT_STREQ(VaultError::fromStatus(SecretStatus::interactionNotAllowed).what(),
                 "The keychain is locked. Unlock the Mac and try again.");
    EXPECT_EQ(std::string(VaultError::fromStatus(SecretStatus::ioFailure).what()).rfind("The keychain refused it (-36: ", 0),
              0u);
}

TEST(Vault, ARefusedWriteLeavesEntriesAsTheyWere) {
    Fixture f;
    f.run([&](auto done) { f.vault->create("long enough passphrase", done); });
    VaultItem first = card("first");
    f.vault->save(first);
    const std::string before = f.stored();
    f.store.setFailure(SecretStatus::ioFailure);
    EXPECT_THROW(f.vault->save(card("second")), VaultError);
    EXPECT_EQ(f.vault->items.get().size(), 1u);
    ASSERT_TRUE(f.vault->lastError.get());
    EXPECT_EQ(f.vault->lastError.get()->rfind("The keychain refused it (-36", 0), 0u);
    EXPECT_THROW(f.vault->remove(first.id), VaultError);
    EXPECT_EQ(f.vault->items.get().size(), 1u);
    f.store.setFailure(std::nullopt);
    EXPECT_EQ(f.stored(), before);
}

TEST(Vault, MergeLetsTheIncomingEntryWinAndCounts) {
    Fixture f;
    f.run([&](auto done) { f.vault->create(std::nullopt, done); });
    EXPECT_EQ(f.vault->protection.get(), VaultCrypto::Protection::unprotected);
    VaultItem known = card("mine");
    f.vault->save(known);
    VaultItem older = known;
    older.title = "from the backup";
    older.updated = 0;
    auto count = f.vault->merge({older, card("new one")});
    EXPECT_EQ(count.added, 1);
    EXPECT_EQ(count.replaced, 1);
    EXPECT_EQ(f.vault->items.get().size(), 2u);
    EXPECT_EQ(f.vault->sorted().front().title, "from the backup");
    f.vault->lock();
    EXPECT_THROW(f.vault->merge({}), VaultCrypto::Error);
    f.vault->open();
    EXPECT_EQ(f.vault->items.get().size(), 2u);
}

TEST(Vault, ChangingThePassphraseDisarmsTheShortcut) {
    Fixture f;
    f.run([&](auto done) { f.vault->create("first passphrase", done); });
    std::optional<bool> armed;
    f.vault->armUnlockShortcut("first passphrase", [&](bool ok, auto) { armed = ok; });
    f.scheduler.runUntilIdle();
    EXPECT_EQ(armed, true);
    EXPECT_TRUE(f.vault->hasUnlockShortcut());

    f.vault->lock();
    // Showing without a passphrase is only for a vault that has none.
    EXPECT_THROW(f.vault->open(), VaultCrypto::Error);
    EXPECT_EQ(f.vault->lastError.get(), "That passphrase does not open this vault.");
    EXPECT_EQ(f.run([&](auto done) { f.vault->unlockWithShortcut(done); }), std::nullopt);
    EXPECT_TRUE(f.vault->isUnlocked.get());
    f.vault->lock();
    f.authenticator.succeeds = false;
    f.authenticator.error = AuthenticationError{"com.apple.LocalAuthentication", -2, "Canceled by user."};
    EXPECT_EQ(f.run([&](auto done) { f.vault->unlockWithShortcut(done); }), "Cancelled.");
    EXPECT_EQ(f.vault->lastError.get(), std::nullopt);  // a cancelled prompt shows nothing

    f.run([&](auto done) { f.vault->unlock("first passphrase", done); });
    EXPECT_EQ(f.run([&](auto done) { f.vault->changePassphrase("second passphrase", done); }), std::nullopt);
    EXPECT_FALSE(f.vault->hasUnlockShortcut());
    f.vault->lock();
    EXPECT_EQ(f.run([&](auto done) { f.vault->unlock("first passphrase", done); }),
              "That passphrase does not open this vault.");
    EXPECT_EQ(f.run([&](auto done) { f.vault->unlock("second passphrase", done); }), std::nullopt);

    f.vault->armUnlockShortcut("wrong", [&](bool ok, auto) { armed = ok; });
    f.scheduler.runUntilIdle();
    EXPECT_EQ(armed, false);
    f.vault->eraseEverything();
    EXPECT_EQ(f.store.count(), 0u);
    EXPECT_FALSE(f.vault->exists());
    EXPECT_EQ(f.run([&](auto done) { f.vault->create(std::nullopt, done); }), std::nullopt);
}

TEST(Vault, BiometricsNotesSayWhatCanUnlock) {
    FakeAuthenticator authenticator;
    Biometrics biometrics(authenticator);
    EXPECT_EQ(biometrics.note(), "cannot unlock without the passphrase: no way to authenticate on this Mac");
    authenticator.password = {true, std::nullopt};
    EXPECT_EQ(biometrics.note(), "can unlock with the login password only \u2014 biometrics refused: "
                                 "com.apple.LocalAuthentication -6: No biometrics here.");
    authenticator.biometric = {true, std::nullopt};
    EXPECT_EQ(biometrics.note(), "can unlock with Touch ID");
}

TEST(SecretClipboard, MarksConcealedAndClearsOnlyItsOwnCopy) {
    ManualScheduler scheduler;
    SimulatedPasteboard pasteboard;
    int clipboardSeconds = 45;
    VaultSession session(scheduler, pasteboard, [] { return 300; }, [&] { return clipboardSeconds; });
    session.copy("sk_live_secret");
    EXPECT_EQ(pasteboard.types(), (std::vector<std::string>{SecretClipboard::concealedType, Pasteboard::plainTextType}));
    EXPECT_EQ(pasteboard.string(), "sk_live_secret");
    EXPECT_EQ(session.message(), "Copied \u2014 the pasteboard clears in 45s, and the history skipped it.");
    scheduler.advance(44.9);
    EXPECT_EQ(pasteboard.string(), "sk_live_secret");
    scheduler.advance(0.2);
    EXPECT_EQ(pasteboard.string(), std::nullopt);
    EXPECT_EQ(session.message(), "The copy has been cleared from the pasteboard.");

    session.copy("again");
    pasteboard.copy({{Pasteboard::plainTextType, "the user's own"}});
    scheduler.advance(60);
    EXPECT_EQ(pasteboard.string(), "the user's own");

    clipboardSeconds = 0;
    session.copy("kept");
    EXPECT_EQ(session.message(), "Copied. Tavrick's clipboard history skipped it.");
    scheduler.advance(3600);
    EXPECT_EQ(pasteboard.string(), "kept");
}

TEST(VaultSession, AutoLockDefersThreeTimesForAnOpenEditorThenLocks) {
    ManualScheduler scheduler;
    SimulatedPasteboard pasteboard;
    int lockSeconds = 60;
    VaultSession session(scheduler, pasteboard, [&] { return lockSeconds; }, [] { return 45; });
    int locks = 0;
    bool editing = true;
    session.onLock = [&] { ++locks; };
    session.isEditing = [&] { return editing; };
    session.restartLockTimer();
    scheduler.advance(3 * 60 + 59);
    EXPECT_EQ(locks, 0);
    EXPECT_EQ(session.deferrals(), 3);
    scheduler.advance(1);  // the fourth expiry
    EXPECT_EQ(locks, 1);

    editing = false;
    session.restartLockTimer();
    scheduler.advance(30);
    session.copy("x");  // copying restarts the period
    scheduler.advance(59);
    EXPECT_EQ(locks, 1);
    scheduler.advance(1);
    EXPECT_EQ(locks, 2);

    lockSeconds = 0;  // "Only when it closes"
    session.restartLockTimer();
    scheduler.advance(100000);
    EXPECT_EQ(locks, 2);
}

TEST(VaultSession, RevealsExpireAndRowsMaskByTheirSecrecy) {
    ManualScheduler scheduler;
    SimulatedPasteboard pasteboard;
    VaultSession session(scheduler, pasteboard, [] { return 0; }, [] { return 45; });
    const auto& fields = VaultKinds::fields(VaultKind::card);
    const VaultField& number = fields[1];
    const VaultField& cvv = fields[3];
    const UUID id = UUID::random();
    EXPECT_EQ(session.display({id, "cvv"}, cvv, "1"), "\u2022\u2022\u2022");
    EXPECT_EQ(session.display({id, "number"}, number, "4111 1111"), "\u2022\u2022\u2022\u2022 1111");
    EXPECT_EQ(session.display({id, "cardholder"}, fields[0], "Ann"), "Ann");
    session.reveal({id, "cvv"}, cvv);
    session.reveal({id, "number"}, number);
    EXPECT_EQ(session.display({id, "cvv"}, cvv, "123"), "123");
    scheduler.advance(10);
    EXPECT_FALSE(session.isRevealed({id, "cvv"}));
    EXPECT_TRUE(session.isRevealed({id, "number"}));
    scheduler.advance(20);
    EXPECT_FALSE(session.isRevealed({id, "number"}));
    session.reveal({id, "number"}, number);
    session.clearOnScreenState();
    EXPECT_FALSE(session.isRevealed({id, "number"}));
}

} // namespace
} // namespace tavrick
