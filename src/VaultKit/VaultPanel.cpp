#include "VaultKit/VaultPanel.h"

#include "CoreKit/UnicodeText.h"

#include <algorithm>

namespace tavrick {

namespace {

using Kind = VaultKeychain::Presence::Kind;

constexpr const char* unprotectedExplanation =
    "Without a passphrase the entries are stored unencrypted in the keychain. macOS asks another program for "
    "your login password before handing them over, so this is not wide open — but anyone who knows that "
    "password can read them, and a program you approve once keeps the access. Masking, the private clipboard "
    "and hiding the window from screen recordings all still apply either way.";

constexpr const char* seedPhraseText =
    "Seed phrases and private keys are deliberately not storable here. A stolen card is a phone call; a stolen "
    "seed is final. Keep those on a hardware wallet.";

std::size_t digitCount(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }));
}

const VaultField* fieldOf(VaultKind kind, const std::string& id) {
    for (const auto& field : VaultKinds::fields(kind))
        if (field.id == id) return &field;
    return nullptr;
}

} // namespace

// MARK: - Editor

std::string VaultEditor::namePrompt() const { return std::string(VaultKinds::title(draft_.kind)); }

void VaultEditor::set(const std::string& field, std::string value) {
    if (const VaultField* description = fieldOf(draft_.kind, field);
        description && description->format == VaultField::Format::expiry)
        value = description->formatted(value);
    draft_.set(field, std::move(value));
}

std::optional<std::string> VaultEditor::cardWarning() const {
    if (draft_.kind != VaultKind::card) return std::nullopt;
    const auto number = draft_.value("number");
    if (!number || digitCount(*number) < 12 || Masking::passesLuhn(*number)) return std::nullopt;
    return std::string(cardChecksumWarning);
}

bool VaultEditor::isBlank() const {
    const VaultItem tidy = draft_.tidied();
    return tidy.values.empty() && UnicodeText::trimmed(tidy.title).empty();
}

VaultItem VaultEditor::confirmed() const {
    VaultItem item = draft_.tidied();
    if (item.kind == VaultKind::card)
        if (auto number = item.value("number")) item.set("number", Masking::formatCardNumber(*number));
    return item;
}

bool VaultEditor::confirm(const std::function<std::optional<std::string>(const VaultItem&)>& onSave) {
    if (isBlank()) return false;
    failure_ = onSave(confirmed());
    return !failure_;
}

// MARK: - Panel

VaultPanel::VaultPanel(Vault& vault, VaultSession& session) : vault_(vault), session_(session) {
    session_.isEditing = [this] { return editor_.has_value(); };
    session_.onChange = [this] {
        if (onChange) onChange();
    };
    session_.onLock = [this] {
        editor_.reset();
        failure_.clear();
        vault_.lock();
    };
    // A lock from elsewhere (a restore, the menu) leaves nothing on screen either.
    unlockedObservation_ = vault_.isUnlocked.observe([this](bool unlocked) {
        if (unlocked) {
            // However it was opened, the auto-lock runs from now.
            session_.restartLockTimer();
            return;
        }
        session_.cancelLockTimer();
        session_.clearOnScreenState();
        editor_.reset();
        failure_.clear();
    });
}

VaultPanel::~VaultPanel() {
    session_.isEditing = nullptr;
    session_.onLock = nullptr;
    session_.onChange = nullptr;
}

VaultPanel::GateMode VaultPanel::gateMode() const {
    if (vault_.storage.get().kind == Kind::unreadable) return GateMode::unreadable;
    if (!vault_.exists()) return GateMode::create;
    if (vault_.protection.get() == VaultCrypto::Protection::unprotected) return GateMode::hidden;
    return GateMode::unlock;
}

VaultPanel::Gate VaultPanel::gate(bool askForPassphrase) const {
    switch (gateMode()) {
    case GateMode::create:
        return {"Create Your Vault",
                askForPassphrase
                    ? "Pick something you will not forget. It is the only key: nothing is written down, there is "
                      "no recovery, and forgetting it loses the entries for good. Eight characters minimum."
                    : unprotectedExplanation,
                "Create Vault", "Creating…"};
    case GateMode::unlock:
        return {"Unlock Vault",
                "Entries are stored encrypted. Nothing on this Mac can read them without this passphrase — "
                "including Tavrick.",
                "Unlock", "Unlocking…"};
    case GateMode::hidden:
        return {"Vault Hidden",
                "This vault has no passphrase, so hiding it only takes it off the screen. The entries are stored "
                "unencrypted in the keychain — macOS asks another program for your login password first, but "
                "anyone who knows that password can read them. Add a passphrase in Settings › Vault.",
                "Show Entries", "Show Entries"};
    case GateMode::unreadable:
        return {"This Vault Will Not Open",
                vault_.storage.get().message +
                    "\nTavrick will not write over it. If this Mac has no vault you meant to keep, erase it in "
                    "Settings › Vault and start again.",
                "", ""};
    }
    return {};
}

bool VaultPanel::canSubmit(bool askForPassphrase, const std::string& passphrase, const std::string& repeat) const {
    switch (gateMode()) {
    case GateMode::create:
        if (!askForPassphrase) return true;
        return UnicodeText::characterCount(passphrase, 8) >= 8 && passphrase == repeat;
    case GateMode::unlock: return !passphrase.empty();
    case GateMode::hidden:
    case GateMode::unreadable: return false;
    }
    return false;
}

std::optional<std::string> VaultPanel::rememberOption() {
    if (vault_.protection.get() != VaultCrypto::Protection::passphrase || vault_.hasUnlockShortcut())
        return std::nullopt;
    const auto biometrics = vault_.biometrics();
    if (!biometrics.isAvailable()) return std::nullopt;
    return "Unlock with " + biometrics.description() + " next time";
}

std::optional<std::string> VaultPanel::shortcutButton() {
    if (!vault_.hasUnlockShortcut()) return std::nullopt;
    const auto biometrics = vault_.biometrics();
    if (!biometrics.isAvailable()) return std::nullopt;
    return "Unlock with " + biometrics.description();
}

void VaultPanel::appear(Report report) {
    showing_ = true;
    if (onSuspendSelection) onSuspendSelection(true, suspendReason);
    if (vault_.isUnlocked.get()) return report(std::nullopt);
    if (vault_.exists() && vault_.protection.get() == VaultCrypto::Protection::unprotected) {
        showEntries();
        return report(failure_.empty() ? std::nullopt : std::optional<std::string>(failure_));
    }
    if (vault_.exists() && vault_.hasUnlockShortcut() && vault_.biometrics().isAvailable())
        return unlockWithShortcut(std::move(report));
    report(std::nullopt);
}

void VaultPanel::unlockWithShortcut(Report report) {
    vault_.unlockWithShortcut([this, report = std::move(report)](std::optional<std::string> error) {
        if (!error) {
            session_.restartLockTimer();
            return report(std::nullopt);
        }
        // A cancelled prompt shows nothing.
        if (*error == VaultError(VaultError::Case::cancelled).what()) return report(std::nullopt);
        report(error);
    });
}

void VaultPanel::rememberAfterUnlock(std::string passphrase, bool rememberNext, Report report) {
    session_.restartLockTimer();
    if (!rememberNext) {
        VaultCrypto::wipe(passphrase);
        return report(std::nullopt);
    }
    vault_.armUnlockShortcut(std::move(passphrase), [report](bool armed, std::optional<std::string> error) {
        if (!armed || error) return report(std::string("Unlocked, but this Mac would not remember the passphrase."));
        report(std::nullopt);
    });
}

void VaultPanel::submitUnlock(std::string passphrase, bool rememberNext, Report report) {
    // The derivation takes its own copy; ours is kept only for the shortcut and wiped after.
    std::string kept = rememberNext ? passphrase : std::string();
    vault_.unlock(std::move(passphrase), [this, kept = std::move(kept), rememberNext,
                                          report = std::move(report)](std::optional<std::string> error) mutable {
        if (error) {
            VaultCrypto::wipe(kept);
            return report(error);
        }
        if (!vault_.isUnlocked.get()) return report(std::nullopt); // locked again while deriving
        rememberAfterUnlock(std::move(kept), rememberNext, std::move(report));
    });
}

void VaultPanel::submitCreate(std::optional<std::string> passphrase, bool rememberNext, Report report) {
    std::string kept = rememberNext && passphrase ? *passphrase : std::string();
    const bool protectedVault = passphrase.has_value();
    vault_.create(std::move(passphrase), [this, kept = std::move(kept), rememberNext, protectedVault,
                                          report = std::move(report)](std::optional<std::string> error) mutable {
        if (error) {
            VaultCrypto::wipe(kept);
            return report(error);
        }
        rememberAfterUnlock(std::move(kept), rememberNext && protectedVault, std::move(report));
    });
}

void VaultPanel::showEntries() {
    try {
        vault_.open();
        failure_.clear();
        session_.restartLockTimer();
    } catch (const std::exception& error) {
        failure_ = error.what();
    }
}

void VaultPanel::close() {
    if (showing_ && onSuspendSelection) onSuspendSelection(false, suspendReason);
    showing_ = false;
    session_.cancelLockTimer();
    session_.clearOnScreenState();
    editor_.reset();
    failure_.clear();
    vault_.lock();
}

std::vector<VaultEntry> VaultPanel::entries() const {
    std::vector<VaultEntry> out;
    for (const auto& item : vault_.sorted()) out.push_back(item.entry());
    return out;
}

const VaultItem* VaultPanel::item(const UUID& id) const {
    for (const auto& candidate : vault_.items.get())
        if (candidate.id == id) return &candidate;
    return nullptr;
}

std::vector<VaultPanel::Row> VaultPanel::rows(const UUID& id) const {
    std::vector<Row> out;
    const VaultItem* entry = item(id);
    if (!entry) return out;
    for (const auto& field : VaultKinds::fields(entry->kind)) {
        const auto value = entry->value(field.id);
        if (!value) continue;
        const VaultSession::FieldRef ref{id, field.id};
        Row row{field.id, field.label, session_.display(ref, field, *value), std::nullopt, field.isSecret(),
                session_.isRevealed(ref)};
        if (field.id == "number" && entry->kind == VaultKind::card) row.brand = Masking::cardBrand(*value);
        out.push_back(std::move(row));
    }
    return out;
}

void VaultPanel::reveal(const UUID& id, const std::string& field) {
    const VaultItem* entry = item(id);
    if (!entry) return;
    if (const VaultField* description = fieldOf(entry->kind, field); description && description->isSecret())
        session_.reveal({id, field}, *description);
}

void VaultPanel::hide(const UUID& id, const std::string& field) { session_.hide({id, field}); }

void VaultPanel::copy(const UUID& id, const std::string& field) {
    const VaultItem* entry = item(id);
    if (!entry) return;
    if (auto value = entry->value(field)) {
        failure_.clear();
        session_.copy(*value);
    }
}

std::string VaultPanel::message() const { return failure_.empty() ? session_.message() : failure_; }

std::optional<VaultPanel::Confirmation> VaultPanel::deleteConfirmation(const UUID& id) const {
    const VaultItem* entry = item(id);
    if (!entry) return std::nullopt;
    return Confirmation{"Delete “" + entry->effectiveTitle() + "”?",
                        "It is removed from the vault. There is no undo.", "Delete"};
}

std::optional<std::string> VaultPanel::remove(const UUID& id) {
    try {
        vault_.remove(id);
        failure_.clear();
        return std::nullopt;
    } catch (const std::exception& error) {
        failure_ = error.what();
        return failure_;
    }
}

VaultEditor& VaultPanel::beginAdd(VaultKind kind) {
    VaultItem draft;
    draft.kind = kind;
    editor_.emplace(std::move(draft), true);
    return *editor_;
}

VaultEditor* VaultPanel::beginEdit(const UUID& id) {
    const VaultItem* entry = item(id);
    if (!entry) return nullptr;
    editor_.emplace(*entry, false);
    return &*editor_;
}

bool VaultPanel::confirmEditor() {
    if (!editor_) return false;
    const bool closed = editor_->confirm([this](const VaultItem& item) -> std::optional<std::string> {
        try {
            vault_.save(item);
            return std::nullopt;
        } catch (const std::exception& error) {
            return std::string(error.what());
        }
    });
    if (closed) {
        editor_.reset();
        session_.restartLockTimer();
    }
    return closed;
}

std::string VaultPanel::summary() const {
    if (!vault_.exists()) return "No vault on this Mac yet";
    if (!vault_.isUnlocked.get()) return "Locked";
    const std::size_t count = vault_.items.get().size();
    if (count == 0) return "Unlocked, nothing stored yet";
    if (count == 1) return "Unlocked, 1 entry";
    return "Unlocked, " + std::to_string(count) + " entries";
}

std::string VaultPanel::duration(int seconds) {
    if (seconds < 60) return std::to_string(seconds) + " seconds";
    if (seconds == 60) return "1 minute";
    return std::to_string(seconds / 60) + " minutes";
}

std::string VaultPanel::lockDurationText(int seconds) { return seconds < 1 ? "Only when it closes" : duration(seconds); }

std::string VaultPanel::clipboardDurationText(int seconds) { return seconds < 1 ? "Never" : duration(seconds); }

std::string VaultPanel::closingExplanation() const {
    if (vault_.protection.get() == VaultCrypto::Protection::unprotected)
        return "Closing the window always hides it. With no passphrase there is nothing to ask for, so it opens "
               "again on sight.";
    return "Closing the window always locks it. Unlocking asks for the passphrase again.";
}

std::optional<std::string> VaultPanel::protectionBlocked() const {
    if (vault_.isUnlocked.get()) return std::nullopt;
    return std::string("Open the vault to change how it is protected.");
}

void VaultPanel::changePassphrase(std::string passphrase, Report report) {
    if (auto blocked = protectionBlocked()) {
        VaultCrypto::wipe(passphrase);
        return report(blocked);
    }
    vault_.setProtection(std::move(passphrase), [report = std::move(report)](std::optional<std::string> error) {
        report(error);
    });
}

VaultPanel::Confirmation VaultPanel::removePassphraseConfirmation() const {
    return {"Store these entries unencrypted?",
            "Any program running as you will be able to read every entry — no prompt and no trace. Masking, the "
            "private clipboard and hiding the window from screen recordings all still work; they stop a person, not "
            "software. Reasonable on a Mac only you use.",
            "Store Unencrypted"};
}

void VaultPanel::removePassphrase(Report report) {
    if (auto blocked = protectionBlocked()) return report(blocked);
    vault_.setProtection(std::nullopt, [report = std::move(report)](std::optional<std::string> error) {
        if (error) return report(error);
        report(std::string(
            "Stored unencrypted. The keychain still asks another program for your login password first."));
    });
}

void VaultPanel::setShortcut(bool on, std::string passphrase, Report report) {
    if (!on) {
        VaultCrypto::wipe(passphrase);
        vault_.disarmUnlockShortcut();
        return report(std::string("Removed. The passphrase is asked for every time again."));
    }
    vault_.armUnlockShortcut(std::move(passphrase), [report = std::move(report)](bool armed,
                                                                                 std::optional<std::string> error) {
        if (error) return report(std::string("That passphrase does not open this vault."));
        report(std::string(armed ? "Set. The passphrase still works too." : "The keychain would not keep it."));
    });
}

std::string VaultPanel::shortcutExplanation() {
    return "The passphrase is kept in the keychain so a prompt can release it. That stops someone at your unlocked "
           "Mac. It does not stop anyone who knows your login password, because that is what the keychain asks "
           "another program for. Switch this off and the vault is back to full strength — the passphrase "
           "still works either way.";
}

std::optional<std::string> VaultPanel::biometricsNote() {
    Biometrics biometrics(vault_.authenticator());
    const auto availability = biometrics.availability();
    switch (availability.kind) {
    case Biometrics::Availability::Kind::touchID: return std::nullopt;
    case Biometrics::Availability::Kind::password:
        return "Touch ID is not offered here — macOS says: " +
               biometrics.biometryRefusal().value_or("no reason given") + " The login password is used instead.";
    case Biometrics::Availability::Kind::none: return "This Mac cannot ask for anything: " + availability.reason;
    }
    return std::nullopt;
}

VaultPanel::Confirmation VaultPanel::eraseConfirmation() const {
    return {"Erase the whole vault?", "Every entry goes with it, and the passphrase will not bring them back.",
            "Erase"};
}

std::optional<std::string> VaultPanel::erase() {
    try {
        vault_.eraseEverything();
        return std::nullopt;
    } catch (const std::exception& error) {
        return std::string(error.what());
    }
}

std::vector<std::string> VaultPanel::guarantees() const {
    if (vault_.protection.get() == VaultCrypto::Protection::unprotected)
        return {"This vault has no passphrase, so its entries are stored unencrypted in the keychain on this Mac. "
                "Never synced, never in a backup, and unreadable while the Mac is locked. Another program asking "
                "for them is shown a login-password prompt — so this is not wide open, but anyone who knows "
                "that password can read them.",
                seedPhraseText};
    return {"Entries are encrypted with a key derived from your passphrase and kept in the keychain on this Mac "
            "— never synced, never in a backup. Even someone who gets past the keychain's own prompt reads "
            "only bytes that mean nothing without the passphrase.",
            "The passphrase is the only key. Nothing here records it and there is no recovery: forget it and the "
            "entries are gone. And nothing can protect you from software watching you type it.",
            seedPhraseText};
}

} // namespace tavrick
