#include "VaultKit/VaultPanel.h"

#include "CoreKit/ManualScheduler.h"
#include "Platform/Simulated/SimulatedPasteboard.h"

#include <gtest/gtest.h>

namespace tavrick {
namespace {

constexpr std::int64_t rounds = VaultCrypto::minimumIterations;
const std::string service = "com.orvell.tavrick.test.vault";
const std::string passphrase = "correct horse battery";

class Prompt final : public Authenticator {
public:
    bool biometric = false;
    bool password = true;
    std::optional<AuthenticationError> answerError;
    int asked = 0;
    Answer canEvaluatePolicy(AuthenticationPolicy policy) override {
        if (policy == AuthenticationPolicy::deviceOwnerAuthenticationWithBiometrics)
            return {biometric, AuthenticationError{"LAErrorDomain", -6, "Biometry is not available."}};
        return {password, password ? std::nullopt
                                   : std::optional<AuthenticationError>(AuthenticationError{"LAErrorDomain", -5, "No passcode set."})};
    }
    void evaluatePolicy(AuthenticationPolicy, const std::string&,
                        std::function<void(bool, std::optional<AuthenticationError>)> done) override {
        ++asked;
        done(!answerError, answerError);
    }
};

// The in-memory store, able to refuse only the remembered passphrase.
class Store final : public SecretStore {
public:
    InMemorySecretStore inner;
    bool refuseShortcut = false;
    Copy copy(const std::string& s, const std::string& a) const override { return inner.copy(s, a); }
    SecretStatus add(const std::string& s, const std::string& a, std::string_view data,
                     SecretAccessibility accessibility) override {
        if (refuseShortcut && a == VaultUnlockShortcut::account) return SecretStatus::ioFailure;
        return inner.add(s, a, data, accessibility);
    }
    SecretStatus update(const std::string& s, const std::string& a, std::string_view data) override {
        return inner.update(s, a, data);
    }
    SecretStatus remove(const std::string& s, const std::optional<std::string>& a) override { return inner.remove(s, a); }
    void setFailure(std::optional<SecretStatus> status) { inner.setFailure(status); }
};

struct Panel : ::testing::Test {
    ManualScheduler scheduler;
    Store store;
    Prompt prompt;
    SimulatedPasteboard pasteboard;
    int lockSeconds = 300;
    int clipboardSeconds = 45;
    Vault vault{VaultKeychain(store, service), prompt, scheduler, rounds};
    VaultSession session{scheduler, pasteboard, [this] { return lockSeconds; }, [this] { return clipboardSeconds; }};
    VaultPanel panel{vault, session};

    std::optional<std::string> finish(const std::function<void(VaultPanel::Report)>& start) {
        std::optional<std::optional<std::string>> result;
        start([&](std::optional<std::string> message) { result = message; });
        scheduler.runUntilIdle();
        EXPECT_TRUE(result.has_value()) << "never reported";
        return result.value_or("never reported");
    }
    void createProtected(bool remember = false) {
        ASSERT_EQ(finish([&](auto r) { panel.submitCreate(passphrase, remember, r); }), std::nullopt);
    }
    UUID addCard(const std::string& number) {
        auto& editor = panel.beginAdd(VaultKind::card);
        editor.setTitle("Travel");
        editor.set("number", number);
        editor.set("cvv", "123");
        EXPECT_TRUE(panel.confirmEditor());
        return vault.items.get().back().id;
    }
};

TEST_F(Panel, GateFollowsTheStoredVaultAndItsSubmitRules) {
    EXPECT_EQ(panel.gateMode(), VaultPanel::GateMode::create);
    EXPECT_EQ(panel.gate().title, "Create Your Vault");
    EXPECT_NE(panel.gate(false).explanation.find("Without a passphrase"), std::string::npos);
    struct Case {
        bool ask;
        std::string pass, repeat;
        bool ok;
    } cases[] = {
        {false, "", "", true},
        {true, "1234567", "1234567", false},
        {true, "12345678", "12345678", true},
        {true, "12345678", "12345679", false},
        // Seven characters in fourteen bytes are still seven characters.
        {true, "\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9", "\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9", false},
        {true, "\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9", "\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9", true},
    };
    for (const auto& c : cases) EXPECT_EQ(panel.canSubmit(c.ask, c.pass, c.repeat), c.ok) << c.pass;

    createProtected();
    panel.close();
    EXPECT_EQ(panel.gate().title, "Unlock Vault");
    EXPECT_EQ(panel.gate().busyAction, "Unlocking\u2026");
    EXPECT_FALSE(panel.canSubmit(true, "", ""));
    EXPECT_TRUE(panel.canSubmit(true, "x", ""));

    // Damaged bytes where the vault should be: the gate refuses to write and offers nothing.
    store.inner.update(service, "envelope", "{\"version\":1,\"protection\":\"passphrase\",\"iterations\":99999}");
    Vault damaged{VaultKeychain(store, service), prompt, scheduler, rounds};
    VaultSession otherSession{scheduler, pasteboard, [] { return 0; }, [] { return 0; }};
    VaultPanel other{damaged, otherSession};
    EXPECT_EQ(other.gateMode(), VaultPanel::GateMode::unreadable);
    EXPECT_EQ(other.gate().title, "This Vault Will Not Open");
    EXPECT_EQ(other.gate().action, "");
    EXPECT_FALSE(other.canSubmit(false, "anything", "anything"));
    EXPECT_EQ(finish([&](auto r) { other.submitCreate(std::nullopt, false, r); }),
              "The stored vault could not be read. It may be damaged.");
}

TEST_F(Panel, RememberedPassphraseUnlocksThroughThePromptAndACancelShowsNothing) {
    createProtected();
    EXPECT_EQ(panel.rememberOption(), "Unlock with your login password next time");
    EXPECT_EQ(panel.shortcutButton(), std::nullopt);
    panel.close();
    EXPECT_FALSE(vault.isUnlocked.get());

    EXPECT_EQ(finish([&](auto r) { panel.submitUnlock(passphrase, true, r); }), std::nullopt);
    EXPECT_TRUE(vault.isUnlocked.get());
    EXPECT_EQ(panel.shortcutButton(), "Unlock with your login password");
    EXPECT_EQ(panel.rememberOption(), std::nullopt);
    panel.close();

    // Appearing with a shortcut armed asks the prompt by itself.
    EXPECT_EQ(finish([&](auto r) { panel.appear(r); }), std::nullopt);
    EXPECT_EQ(prompt.asked, 1);
    EXPECT_TRUE(vault.isUnlocked.get());
    panel.close();

    prompt.answerError = AuthenticationError{"LAErrorDomain", -2, "Canceled by user."};
    EXPECT_EQ(finish([&](auto r) { panel.appear(r); }), std::nullopt);
    EXPECT_FALSE(vault.isUnlocked.get());

    // A keychain that will not keep the passphrase still leaves the vault open, and says so.
    prompt.answerError.reset();
    vault.disarmUnlockShortcut();
    store.refuseShortcut = true;
    EXPECT_EQ(finish([&](auto r) { panel.submitUnlock(passphrase, true, r); }),
              "Unlocked, but this Mac would not remember the passphrase.");
    EXPECT_TRUE(vault.isUnlocked.get());
    panel.close();

    EXPECT_EQ(finish([&](auto r) { panel.submitUnlock("wrong passphrase", false, r); }),
              "That passphrase does not open this vault.");
    EXPECT_FALSE(vault.isUnlocked.get());
    prompt.password = false;
    EXPECT_EQ(panel.biometricsNote(), "This Mac cannot ask for anything: No passcode set.");
}

TEST_F(Panel, EditorFormatsWarnsAndKeepsItsDraftWhenTheVaultRefuses) {
    createProtected();
    auto& editor = panel.beginAdd(VaultKind::card);
    EXPECT_EQ(editor.confirmTitle(), "Add");
    EXPECT_FALSE(editor.canConfirm());
    editor.setTitle("   ");
    EXPECT_FALSE(editor.canConfirm());

    // The warning starts at twelve digits and never blocks a save.
    editor.set("number", "4111 1111 112");
    EXPECT_EQ(editor.cardWarning(), std::nullopt);
    editor.set("number", "4111 1111 1112");
    EXPECT_EQ(editor.cardWarning(), VaultEditor::cardChecksumWarning);
    editor.set("number", "4111111111111111");
    EXPECT_EQ(editor.cardWarning(), std::nullopt);
    editor.set("expiry", "1227");
    EXPECT_EQ(editor.draft().value("expiry"), "12/27");
    EXPECT_TRUE(editor.canConfirm());

    store.setFailure(SecretStatus::interactionNotAllowed);
    EXPECT_FALSE(panel.confirmEditor());
    ASSERT_NE(panel.editor(), nullptr);
    EXPECT_EQ(panel.editor()->failure(), "The keychain is locked. Unlock the Mac and try again.");
    EXPECT_TRUE(vault.items.get().empty());

    store.setFailure(std::nullopt);
    EXPECT_TRUE(panel.confirmEditor());
    EXPECT_EQ(panel.editor(), nullptr);
    ASSERT_EQ(vault.items.get().size(), 1u);
    EXPECT_EQ(vault.items.get()[0].value("number"), "4111 1111 1111 1111");
    EXPECT_EQ(panel.summary(), "Unlocked, 1 entry");

    const UUID id = vault.items.get()[0].id;
    auto* edit = panel.beginEdit(id);
    ASSERT_NE(edit, nullptr);
    EXPECT_EQ(edit->confirmTitle(), "Save");
    auto confirmation = panel.deleteConfirmation(id);
    ASSERT_TRUE(confirmation);
    EXPECT_EQ(confirmation->title, "Delete \u201c" + vault.items.get()[0].effectiveTitle() + "\u201d?");
}

TEST_F(Panel, RowsRevealCopyAndTheAutoLockDefersForAnOpenEditor) {
    createProtected();
    const UUID id = addCard("4111111111111111");
    auto rows = panel.rows(id);
    ASSERT_GE(rows.size(), 2u);
    EXPECT_EQ(rows[0].field, "number");
    EXPECT_EQ(rows[0].brand, "Visa");
    EXPECT_EQ(rows[0].shown.find("4111"), std::string::npos);
    panel.reveal(id, "number");
    EXPECT_EQ(panel.rows(id)[0].shown, "4111 1111 1111 1111");
    scheduler.advance(30);
    EXPECT_FALSE(panel.rows(id)[0].isRevealed);

    panel.copy(id, "cvv");
    EXPECT_EQ(panel.message(), "Copied \u2014 the pasteboard clears in 45s, and the history skipped it.");
    EXPECT_EQ(pasteboard.string(), "123");
    scheduler.advance(45);
    EXPECT_EQ(panel.message(), "The copy has been cleared from the pasteboard.");

    // An open editor earns three more periods; the fourth expiry locks and drops the draft.
    panel.beginAdd(VaultKind::apiKey).setTitle("half typed");
    session.restartLockTimer();
    for (int period = 0; period < 3; ++period) {
        scheduler.advance(lockSeconds);
        EXPECT_TRUE(vault.isUnlocked.get()) << period;
    }
    scheduler.advance(lockSeconds);
    EXPECT_FALSE(vault.isUnlocked.get());
    EXPECT_EQ(panel.editor(), nullptr);
    EXPECT_EQ(panel.summary(), "Locked");
}

TEST_F(Panel, AnUnprotectedVaultOpensOnSightAndExplainsItself) {
    ASSERT_EQ(finish([&](auto r) { panel.submitCreate(std::nullopt, true, r); }), std::nullopt);
    EXPECT_EQ(prompt.asked, 0) << "nothing to remember without a passphrase";
    panel.close();
    EXPECT_EQ(panel.gate().title, "Vault Hidden");
    EXPECT_EQ(panel.protectionBlocked(), "Open the vault to change how it is protected.");
    EXPECT_EQ(finish([&](auto r) { panel.appear(r); }), std::nullopt);
    EXPECT_TRUE(vault.isUnlocked.get());
    EXPECT_NE(panel.closingExplanation().find("hides it"), std::string::npos);
    EXPECT_EQ(panel.guarantees().size(), 2u);

    // Adding a passphrase makes the next close a real lock.
    EXPECT_EQ(finish([&](auto r) { panel.changePassphrase(passphrase, r); }), std::nullopt);
    panel.close();
    EXPECT_EQ(panel.gate().title, "Unlock Vault");
    EXPECT_EQ(finish([&](auto r) { panel.submitUnlock(passphrase, false, r); }), std::nullopt);
    EXPECT_EQ(finish([&](auto r) { panel.removePassphrase(r); }),
              "Stored unencrypted. The keychain still asks another program for your login password first.");
}

TEST(VaultPanelTexts, DurationsReadInSecondsAndWholeMinutes) {
    struct Case {
        int seconds;
        const char* lock;
        const char* clipboard;
    } cases[] = {{0, "Only when it closes", "Never"},
                 {15, "15 seconds", "15 seconds"},
                 {59, "59 seconds", "59 seconds"},
                 {60, "1 minute", "1 minute"},
                 {90, "1 minutes", "1 minutes"},
                 {900, "15 minutes", "15 minutes"}};
    for (const auto& c : cases) {
        EXPECT_EQ(VaultPanel::lockDurationText(c.seconds), c.lock);
        EXPECT_EQ(VaultPanel::clipboardDurationText(c.seconds), c.clipboard);
    }
}

} // namespace
} // namespace tavrick
