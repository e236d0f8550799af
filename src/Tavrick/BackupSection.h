#pragma once

#include "BackupKit/Archive.h"
#include "Tavrick/BackupRestore.h"

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// The words of the backup section and its two sheets.
struct BackupTexts {
    static constexpr const char* introduction = "Settings, bindings, tweaks, the note and the vault, in one file.";
    static constexpr const char* nothingToInclude = "Nothing to include";
    static constexpr const char* nothingStored = "There is nothing in the vault and no AI key stored.";
    static constexpr const char* exportVaultLocked =
        "Open the vault first — its entries cannot be read while it is locked.";
    static constexpr const char* passphraseField = "Passphrase for this file";
    static constexpr const char* passphraseExplanation =
        "Secrets in a backup are always encrypted, even when the vault itself has no passphrase — a file travels, "
        "and a Mac does not. This passphrase is only for the file, and nothing records it.";
    static constexpr const char* savePrompt = "Where to save the backup.";
    static constexpr const char* lockedDuringExport = "The vault locked while this was open. Unlock it and try again.";
    static constexpr const char* plainNote = "Bindings and tweaks are plain JSON you can read.";

    static constexpr const char* openPrompt = "Choose a Tavrick backup.";
    static constexpr const char* unreadableFile = "That file could not be read";
    static constexpr const char* restoreTitle = "Restore from this backup?";
    static constexpr const char* bindingsNote = "Replaces every shortcut and gesture you have now.";
    static constexpr const char* notepadNote = "Replaces the note you have now.";
    static constexpr const char* tweaksNote = "Applying these relaunches Finder and the Dock.";
    static constexpr const char* emptyArchive = "This backup is empty.";
    static constexpr const char* secretsRow = "Vault entries and keys";
    static constexpr const char* mergeSentence =
        "Entries are merged by identity: one that is in both wins from the backup, and anything only on this Mac is "
        "kept.";
    static constexpr const char* importVaultLocked = "Open the vault first — restoring into it needs it unlocked.";
    static constexpr const char* confirmSettings =
        "Settings are replaced with the ones in the file, including the AI provider and its endpoint.";
    static constexpr const char* confirmBindings = "Every shortcut and gesture is replaced.";
    static constexpr const char* confirmTweaks = "Tweaks are applied, relaunching Finder and the Dock.";
    static constexpr const char* confirmNotepad = "The note is replaced.";
    static constexpr const char* confirmSecrets = "Vault entries are merged in, and any AI key is overwritten.";
    static constexpr const char* noUndo = "There is no undo.";
};

// The export sheet without a window: a toggle per section, the passphrase pair, and the export.
// Main queue.
class BackupExportModel {
public:
    static constexpr std::size_t minimumPassphraseLength = 8;

    explicit BackupExportModel(BackupTarget& target, std::int64_t rounds = VaultCrypto::iterations);

    // The toggles; a section with nothing in it stays off whatever its toggle says.
    bool settings = true;
    bool bindings = true;
    bool tweaks = true;
    bool notepad = true;
    bool secrets = true;
    std::string passphrase;
    std::string passphraseRepeat;

    std::size_t mappingCount() const;
    std::vector<std::string> appliedTweaks() const;
    bool hasNote() const;
    // Zero while the vault is locked: its entries cannot be read then.
    std::size_t vaultCount() const;
    // Every AI provider's key that is stored and not empty, by account.
    std::map<std::string, std::string> storedKeys() const;

    bool canIncludeSecrets() const;
    // "1 vault entry and 2 AI keys", or "Nothing to include".
    std::string secretsLabel() const;
    // Why the secrets row cannot be chosen; nothing when it can.
    std::optional<std::string> secretsNote() const;
    BackupPlan effectivePlan() const;
    // The plan is not empty, and with secrets the passphrase is long enough and repeated.
    bool isReady() const;
    // The summary phrases of what the plan would write: "3 bindings", "the note", ...
    std::vector<std::string> captions() const;
    std::string suggestedName() const;

    // Builds on the pool and writes the file; `done` on the main queue with the failure's
    // sentence, or nothing.
    void exportTo(const std::filesystem::path& url, std::function<void(std::optional<std::string>)> done);

private:
    BackupTarget& target_;
    std::int64_t rounds_;
    // The vault was open when the sheet was; a lock since then is reported, not ignored.
    bool vaultWasOpen_;
};

// The restore sheet without a window: the file read, the sections offered, the passphrase, and
// the outcome. Main queue.
class BackupImportModel {
public:
    struct PendingImport {
        Archive archive;
        std::filesystem::path url;
    };

    explicit BackupImportModel(BackupTarget& target);

    // Reads and decodes; the failure's sentence, or nothing. A refused file leaves no pending
    // import.
    std::optional<std::string> open(const std::filesystem::path& url);
    const std::optional<PendingImport>& pending() const { return pending_; }
    Archive::Contents contents() const;

    // Starts as what the file offers, with the secrets off while the vault is locked.
    BackupPlan plan;
    std::string passphrase;

    bool canChooseSecrets() const;
    // The note under each offered row, in the sheet's order.
    std::vector<std::string> notes() const;
    // "2 in this file could not be read by this version of Tavrick and will be left out."
    std::optional<std::string> skippedNote() const;
    // The fixed sentences for the chosen sections, and the last word that there is no undo.
    std::vector<std::string> confirmation() const;
    // When, where and by which version the file was made.
    std::string identification() const;

    // Restores the chosen sections. The outcome's text is kept for the sheet, which stays open on
    // an error.
    void restore(std::function<void(const BackupRestore::Outcome&)> done);
    const std::optional<BackupRestore::Outcome>& outcome() const { return outcome_; }

private:
    BackupTarget& target_;
    std::optional<PendingImport> pending_;
    std::optional<BackupRestore::Outcome> outcome_;
    // A sheet closed while its restore runs hears nothing of the end.
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

} // namespace tavrick
