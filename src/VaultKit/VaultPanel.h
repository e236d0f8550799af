#pragma once

#include "VaultKit/SecretClipboard.h"
#include "VaultKit/Vault.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// The draft of one entry while it is being added or edited. Nothing reaches the vault until
// `confirm` succeeds; a failed save keeps the draft and says why.
class VaultEditor {
public:
    VaultEditor(VaultItem draft, bool isNew) : draft_(std::move(draft)), isNew_(isNew) {}

    const VaultItem& draft() const { return draft_; }
    bool isNew() const { return isNew_; }
    // The name field; its prompt is the kind's title.
    std::string namePrompt() const;
    void setTitle(std::string title) { draft_.title = std::move(title); }
    // Expiry fields are stored formatted, so the draft never holds an unformatted expiry.
    void set(const std::string& field, std::string value);

    // For cards whose number has 12 or more digits and fails the checksum. A warning only.
    std::optional<std::string> cardWarning() const;
    std::string confirmTitle() const { return isNew_ ? "Add" : "Save"; }
    // Nothing left once tidied: no value and an empty title.
    bool isBlank() const;
    bool canConfirm() const { return !isBlank(); }
    // The item that confirming stores: tidied, a card's number grouped.
    VaultItem confirmed() const;
    // Hands `confirmed()` to `onSave`; its failure text stays in `failure()` and the editor stays
    // open. Returns true when the editor may close.
    bool confirm(const std::function<std::optional<std::string>(const VaultItem&)>& onSave);
    const std::optional<std::string>& failure() const { return failure_; }

    static constexpr const char* footnote = "Encrypted with your passphrase, on this Mac only.";
    static constexpr const char* cardChecksumWarning =
        "That number fails the usual checksum. Worth re-reading — some prepaid cards do too.";

private:
    VaultItem draft_;
    bool isNew_;
    std::optional<std::string> failure_;
};

// Everything the vault's window decides, without the window: the gate in front of a locked
// vault, the entry list and its rows, reveal and copy, the editor, deleting, and the settings
// pane's texts and commands. A face (the terminal menu, a tray menu) draws it and forwards the
// user's choices. Confined to the main queue.
class VaultPanel {
public:
    VaultPanel(Vault& vault, VaultSession& session);
    ~VaultPanel();

    enum class GateMode { create, unlock, hidden, unreadable };
    GateMode gateMode() const;
    struct Gate {
        std::string title;
        std::string explanation;
        // Empty when the gate offers no action.
        std::string action;
        std::string busyAction;
    };
    // `askForPassphrase` is the create gate's "Ask for a passphrase" switch.
    Gate gate(bool askForPassphrase = true) const;
    // Whether the gate's button may be pressed with what is typed. Characters, not bytes.
    bool canSubmit(bool askForPassphrase, const std::string& passphrase, const std::string& repeat) const;
    // The "remember" checkbox: on a passphrase vault with no shortcut while something can ask.
    std::optional<std::string> rememberOption();
    // The button beside the passphrase field once a shortcut is armed.
    std::optional<std::string> shortcutButton();

    using Report = std::function<void(std::optional<std::string> message)>;
    // The window appears: an unprotected vault opens at once; a locked one with a shortcut asks
    // the prompt by itself. `report` gets what the gate shows (nothing for a cancelled prompt).
    void appear(Report report);
    void submitUnlock(std::string passphrase, bool rememberNext, Report report);
    void submitCreate(std::optional<std::string> passphrase, bool rememberNext, Report report);
    void unlockWithShortcut(Report report);
    void showEntries();
    // Closing always locks.
    void close();

    // The list, sorted by title.
    std::vector<VaultEntry> entries() const;
    static constexpr const char* emptyTitle = "Nothing Stored";
    static constexpr const char* emptyDetail = "Add a card, an account, a wallet address or an API key.";
    static constexpr const char* noSelectionTitle = "Nothing Selected";
    static constexpr const char* noSelectionDetail = "Pick an entry on the left.";

    struct Row {
        std::string field;
        std::string label;
        std::string shown;
        // The card's brand beside its number.
        std::optional<std::string> brand;
        bool canReveal = false;
        bool isRevealed = false;
    };
    // The rows of an entry with a value, in field order.
    std::vector<Row> rows(const UUID& id) const;
    void reveal(const UUID& id, const std::string& field);
    void hide(const UUID& id, const std::string& field);
    void copy(const UUID& id, const std::string& field);
    // The line under the detail: what the last copy or failure said.
    std::string message() const;

    struct Confirmation {
        std::string title;
        std::string detail;
        std::string confirm;
        std::string cancel = "Cancel";
    };
    std::optional<Confirmation> deleteConfirmation(const UUID& id) const;
    // Returns the failure text, if any.
    std::optional<std::string> remove(const UUID& id);

    // Starting an editor counts as editing for the auto-lock's deferrals until it ends.
    VaultEditor& beginAdd(VaultKind kind);
    VaultEditor* beginEdit(const UUID& id);
    VaultEditor* editor() { return editor_ ? &*editor_ : nullptr; }
    // Stores the editor's draft; closes the editor unless the vault refused it.
    bool confirmEditor();
    void cancelEditor() { editor_.reset(); }

    // The settings pane.
    std::string summary() const;
    static std::string duration(int seconds);
    static std::string lockDurationText(int seconds);
    static std::string clipboardDurationText(int seconds);
    std::string closingExplanation() const;
    // Empty while the vault is open; otherwise why protection cannot change now.
    std::optional<std::string> protectionBlocked() const;
    void changePassphrase(std::string passphrase, Report report);
    Confirmation removePassphraseConfirmation() const;
    void removePassphrase(Report report);
    void setShortcut(bool on, std::string passphrase, Report report);
    std::string shortcutExplanation();
    // Why the prompt is what it is, for "password" and "none" availability.
    std::optional<std::string> biometricsNote();
    Confirmation eraseConfirmation() const;
    std::optional<std::string> erase();
    // "What This Is, And Is Not".
    std::vector<std::string> guarantees() const;

    // The words of the pane's controls, for whichever face draws them.
    struct Labels {
        static constexpr const char* askForPassphrase = "Ask for a passphrase";
        static constexpr const char* repeat = "Repeat it";
        static constexpr const char* changePassphrase = "Change Passphrase…";
        static constexpr const char* newPassphrase = "New passphrase";
        static constexpr const char* setPassphrase = "Set Passphrase";
        static constexpr const char* rememberIt = "Remember It";
        static constexpr const char* eraseVault = "Erase Vault…";
        static constexpr const char* clearPasteboardAfter = "Clear the pasteboard after";
        static constexpr const char* clearPasteboardExplanation =
            "A copy from the vault is marked private, so Tavrick's own clipboard history skips it — and it is "
            "cleared again unless you have copied something else in the meantime.";
        static constexpr const char* guaranteesTitle = "What This Is, And Is Not";
    };

    // What shows changed by itself (a reveal ran out, the pasteboard was cleared).
    std::function<void()> onChange;

    // The selection bar stops looking while the panel shows; the coordinator links this.
    std::function<void(bool suspended, const std::string& reason)> onSuspendSelection;
    static constexpr const char* suspendReason = "not looking while the vault is open";

private:
    const VaultItem* item(const UUID& id) const;
    void rememberAfterUnlock(std::string passphrase, bool rememberNext, Report report);

    Vault& vault_;
    VaultSession& session_;
    std::optional<VaultEditor> editor_;
    std::string failure_;
    Observation unlockedObservation_;
    bool showing_ = false;
};

} // namespace tavrick
