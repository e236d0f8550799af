#pragma once

#include "CoreKit/Models.h"
#include "VaultKit/VaultCrypto.h"
#include "VaultKit/VaultItem.h"

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// Every way a backup file can be refused; `what()` is the sentence a user reads.
class ArchiveError : public std::runtime_error {
public:
    enum class Case { fromANewerVersion, notAnArchive, damaged, wrongPassphrase, nothingSelected };

    static ArchiveError fromANewerVersion(std::int64_t version);
    static ArchiveError notAnArchive();
    static ArchiveError damaged();
    static ArchiveError wrongPassphrase();
    static ArchiveError nothingSelected();

    Case kind() const { return case_; }
    // The version a newer file names; 0 for the other cases.
    std::int64_t version() const { return version_; }

private:
    ArchiveError(Case kind, std::string text, std::int64_t version = 0)
        : std::runtime_error(std::move(text)), case_(kind), version_(version) {}
    Case case_;
    std::int64_t version_;
};

// One file that holds the whole configuration: readable JSON, except that everything secret
// stands inside one sealed envelope with a passphrase of its own. A section that was not chosen
// is absent, never empty.
struct Archive {
    static constexpr std::string_view magic = "tavrick-backup";
    static constexpr std::int64_t currentVersion = 1;
    static constexpr std::string_view fileExtension = "json";

    // What the envelope holds: the vault's entries and the AI keys by keychain account.
    struct Secrets {
        std::vector<VaultItem> vault;
        std::map<std::string, std::string> apiKeys;
        bool isEmpty() const { return vault.empty() && apiKeys.empty(); }
        friend bool operator==(const Secrets&, const Secrets&) = default;
    };

    // A summary for the restore sheet.
    struct Contents {
        bool settings = false;
        int bindings = 0;
        int tweaks = 0;
        bool notepad = false;
        bool secrets = false;
        bool isEmpty() const { return !settings && bindings == 0 && tweaks == 0 && !notepad && !secrets; }
        friend bool operator==(const Contents&, const Contents&) = default;
    };

    std::string format{magic};
    std::int64_t version = currentVersion;
    // Seconds since 1970; written as ISO 8601 text.
    double createdAt = 0;
    std::string app;
    std::string machine;
    // A binary property list of the settings.
    std::optional<std::string> settings;
    std::optional<std::vector<Mapping>> bindings;
    std::optional<std::vector<std::string>> tweaks;
    std::optional<std::string> notepad;
    std::optional<VaultCrypto::Envelope> secrets;
    // Bindings a reader had to leave out; never written.
    int skippedBindings = 0;

    Contents contents() const;
    friend bool operator==(const Archive&, const Archive&) = default;
};

// The sections a user chose.
struct BackupPlan {
    bool settings = false;
    bool bindings = false;
    bool tweaks = false;
    bool notepad = false;
    bool secrets = false;

    bool isEmpty() const { return !settings && !bindings && !tweaks && !notepad && !secrets; }
    // Every section the archive holds.
    static BackupPlan offered(const Archive::Contents& contents);
    friend bool operator==(const BackupPlan&, const BackupPlan&) = default;
};

namespace ArchiveFile {

// Pretty-printed with sorted keys.
std::string encode(const Archive& archive);
// Throws ArchiveError; reading changes nothing anywhere.
Archive decode(std::string_view bytes);
// "Tavrick-2026-03-01-Studios-Mac.json": the day in UTC, and the machine's name with blanks as
// "-" and nothing but letters, digits and "-" kept.
std::string suggestedName(double date, std::string_view machine);

// "2026-03-01T09:30:00Z", and back; nothing for text that is not such a date.
std::string isoDate(double seconds);
std::optional<double> parseISODate(std::string_view text);

} // namespace ArchiveFile

namespace ArchiveBuilder {

// Sections not chosen are passed as nothing. Throws ArchiveError (`wrongPassphrase` for secrets
// without a passphrase, `nothingSelected` for a backup that would hold nothing) or the vault's
// own errors from sealing.
Archive build(double date, std::string app, std::string machine, std::optional<std::string> settings,
              std::optional<std::vector<Mapping>> bindings, std::optional<std::vector<std::string>> tweaks,
              std::optional<std::string> notepad, std::optional<Archive::Secrets> secrets,
              std::string_view passphrase, std::int64_t rounds = VaultCrypto::iterations);

// The decrypted secrets; empty ones when the archive holds none. Throws ArchiveError.
Archive::Secrets secrets(const Archive& archive, std::string_view passphrase);
// Whether the passphrase opens the archive's secrets; an archive without any opens with anything.
bool opens(const Archive& archive, std::string_view passphrase);

std::string encodeSecrets(const Archive::Secrets& secrets);
// Throws ArchiveError::damaged.
Archive::Secrets decodeSecrets(std::string_view text);

} // namespace ArchiveBuilder

} // namespace tavrick
