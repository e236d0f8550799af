#include "Tavrick/BackupSection.h"

#include "BackupKit/SettingsSnapshot.h"
#include "CoreKit/FileIO.h"
#include "CoreKit/UnicodeText.h"
#include "Tavrick/BackupFile.h"

#include <cstring>
#include <memory>

namespace tavrick {

BackupExportModel::BackupExportModel(BackupTarget& target, std::int64_t rounds)
    : target_(target), rounds_(rounds), vaultWasOpen_(target.vault.isUnlocked.get()) {}

std::size_t BackupExportModel::mappingCount() const { return target_.store.mappings().get().size(); }

std::vector<std::string> BackupExportModel::appliedTweaks() const {
    std::vector<std::string> ids;
    if (!target_.isTweakOn) return ids;
    for (const auto& tweak : Tweaks::all()) {
        if (target_.isTweakOn(tweak)) ids.push_back(tweak.id);
    }
    return ids;
}

bool BackupExportModel::hasNote() const { return !target_.notepad.text().get().empty(); }

std::size_t BackupExportModel::vaultCount() const {
    return target_.vault.isUnlocked.get() ? target_.vault.items.get().size() : 0;
}

std::map<std::string, std::string> BackupExportModel::storedKeys() const {
    std::map<std::string, std::string> keys;
    for (const auto& account : aiKeyAccounts()) {
        if (auto key = target_.keychain.get(account); key && !key->empty()) keys.emplace(account, std::move(*key));
    }
    return keys;
}

bool BackupExportModel::canIncludeSecrets() const { return vaultCount() > 0 || !storedKeys().empty(); }

std::string BackupExportModel::secretsLabel() const {
    const std::size_t entries = vaultCount();
    const std::size_t keys = storedKeys().size();
    std::string label;
    if (entries > 0) label = BackupRestore::counted(entries, "vault entry", "vault entries");
    if (keys > 0) {
        if (!label.empty()) label += " and ";
        label += BackupRestore::counted(keys, "AI key", "AI keys");
    }
    return label.empty() ? BackupTexts::nothingToInclude : label;
}

std::optional<std::string> BackupExportModel::secretsNote() const {
    if (canIncludeSecrets()) return std::nullopt;
    // Only a locked vault can hide entries; an open and empty one has nothing to hide.
    if (!target_.vault.isUnlocked.get() && target_.vault.exists()) return BackupTexts::exportVaultLocked;
    return BackupTexts::nothingStored;
}

BackupPlan BackupExportModel::effectivePlan() const {
    return BackupPlan{settings, bindings && mappingCount() > 0, tweaks && !appliedTweaks().empty(),
                      notepad && hasNote(), secrets && canIncludeSecrets()};
}

bool BackupExportModel::isReady() const {
    const BackupPlan plan = effectivePlan();
    if (plan.isEmpty()) return false;
    if (!plan.secrets) return true;
    return UnicodeText::characterCount(passphrase) >= minimumPassphraseLength && passphrase == passphraseRepeat;
}

std::vector<std::string> BackupExportModel::captions() const {
    const BackupPlan plan = effectivePlan();
    std::vector<std::string> out;
    if (plan.settings) {
        out.push_back(std::to_string(SettingsSnapshot::keys(SettingsSnapshot::capture(target_.defaults)).size()) +
                      " settings");
    }
    if (plan.bindings) out.push_back(BackupRestore::counted(mappingCount(), "binding", "bindings"));
    if (plan.tweaks) out.push_back(BackupRestore::counted(appliedTweaks().size(), "tweak", "tweaks"));
    if (plan.notepad) out.push_back("the note");
    if (plan.secrets) out.push_back(secretsLabel());
    return out;
}

std::string BackupExportModel::suggestedName() const {
    return ArchiveFile::suggestedName(target_.scheduler.clock().now(), target_.machineName ? target_.machineName() : "");
}

void BackupExportModel::exportTo(const std::filesystem::path& url, std::function<void(std::optional<std::string>)> done) {
    const BackupPlan plan = effectivePlan();
    if (plan.secrets && vaultWasOpen_ && !target_.vault.isUnlocked.get()) {
        return done(std::string(BackupTexts::lockedDuringExport));
    }
    if (plan.isEmpty()) return done(std::string(ArchiveError::nothingSelected().what()));
    if (!isReady()) return done(std::string(ArchiveError::wrongPassphrase().what()));

    // Everything is read here, on the main queue; the pool only seals, encodes and writes.
    struct Work {
        double date;
        std::string app, machine;
        std::optional<std::string> settings;
        std::optional<std::vector<Mapping>> bindings;
        std::optional<std::vector<std::string>> tweaks;
        std::optional<std::string> notepad;
        std::optional<Archive::Secrets> secrets;
        std::string passphrase;
    };
    auto work = std::make_shared<Work>();
    work->date = target_.scheduler.clock().now();
    work->app = target_.appVersion;
    work->machine = target_.machineName ? target_.machineName() : "";
    if (plan.settings) work->settings = SettingsSnapshot::capture(target_.defaults);
    if (plan.bindings) work->bindings = target_.store.mappings().get();
    if (plan.tweaks) work->tweaks = appliedTweaks();
    if (plan.notepad) work->notepad = target_.notepad.text().get();
    if (plan.secrets) {
        Archive::Secrets secrets;
        if (target_.vault.isUnlocked.get()) secrets.vault = target_.vault.items.get();
        secrets.apiKeys = storedKeys();
        work->secrets = std::move(secrets);
        work->passphrase = passphrase;
    }
    Scheduler& scheduler = target_.scheduler;
    const std::int64_t rounds = rounds_;
    scheduler.global(QoS::userInitiated, [work, url, rounds, &scheduler, done = std::move(done)]() mutable {
        std::optional<std::string> failure;
        try {
            Archive archive = ArchiveBuilder::build(work->date, work->app, work->machine, std::move(work->settings),
                                                    std::move(work->bindings), std::move(work->tweaks),
                                                    std::move(work->notepad), std::move(work->secrets),
                                                    work->passphrase, rounds);
            failure = BackupFile::write(archive, url);
        } catch (const std::exception& error) {
            failure = error.what();
        }
        VaultCrypto::wipe(work->passphrase);
        if (work->secrets) {
            for (auto& [account, key] : work->secrets->apiKeys) VaultCrypto::wipe(key);
        }
        scheduler.async([failure, done = std::move(done)] { done(failure); });
    });
}

BackupImportModel::BackupImportModel(BackupTarget& target) : target_(target) {}

std::optional<std::string> BackupImportModel::open(const std::filesystem::path& url) {
    pending_.reset();
    outcome_.reset();
    int error = 0;
    auto bytes = FileIO::readAll(url, error);
    if (!bytes) return std::string(BackupTexts::unreadableFile);
    try {
        pending_ = PendingImport{ArchiveFile::decode(*bytes), url};
    } catch (const ArchiveError& refused) {
        return std::string(refused.what());
    }
    plan = BackupPlan::offered(contents());
    if (!canChooseSecrets()) plan.secrets = false;
    return std::nullopt;
}

Archive::Contents BackupImportModel::contents() const {
    return pending_ ? pending_->archive.contents() : Archive::Contents{};
}

bool BackupImportModel::canChooseSecrets() const { return contents().secrets && target_.vault.isUnlocked.get(); }

std::vector<std::string> BackupImportModel::notes() const {
    const auto c = contents();
    if (c.isEmpty()) return {BackupTexts::emptyArchive};
    std::vector<std::string> out;
    if (c.bindings > 0) out.push_back(BackupTexts::bindingsNote);
    if (c.tweaks > 0) out.push_back(BackupTexts::tweaksNote);
    if (c.notepad) out.push_back(BackupTexts::notepadNote);
    if (c.secrets) {
        out.push_back(target_.vault.isUnlocked.get() ? BackupTexts::mergeSentence : BackupTexts::importVaultLocked);
    }
    return out;
}

std::optional<std::string> BackupImportModel::skippedNote() const {
    if (!pending_ || pending_->archive.skippedBindings <= 0) return std::nullopt;
    return std::to_string(pending_->archive.skippedBindings) +
           " in this file could not be read by this version of Tavrick and will be left out.";
}

std::vector<std::string> BackupImportModel::confirmation() const {
    std::vector<std::string> out;
    const auto c = contents();
    if (plan.settings && c.settings) out.push_back(BackupTexts::confirmSettings);
    if (plan.bindings && c.bindings > 0) out.push_back(BackupTexts::confirmBindings);
    if (plan.tweaks && c.tweaks > 0) out.push_back(BackupTexts::confirmTweaks);
    if (plan.notepad && c.notepad) out.push_back(BackupTexts::confirmNotepad);
    if (plan.secrets && c.secrets) out.push_back(BackupTexts::confirmSecrets);
    out.push_back(BackupTexts::noUndo);
    return out;
}

std::string BackupImportModel::identification() const {
    if (!pending_) return "";
    const auto& a = pending_->archive;
    return "Made " + ArchiveFile::isoDate(a.createdAt) + " on " + (a.machine.empty() ? "an unnamed computer" : a.machine) +
           " by Tavrick " + a.app;
}

void BackupImportModel::restore(std::function<void(const BackupRestore::Outcome&)> done) {
    if (!pending_) {
        outcome_ = BackupRestore::Outcome{std::nullopt, std::make_exception_ptr(ArchiveError::nothingSelected())};
        if (done) done(*outcome_);
        return;
    }
    std::weak_ptr<int> alive = alive_;
    BackupRestore::apply(pending_->archive, plan, passphrase, target_,
                         [this, alive, done](BackupRestore::Outcome outcome) {
                             if (!alive.lock()) return;
                             outcome_ = std::move(outcome);
                             if (done) done(*outcome_);
                         });
}

} // namespace tavrick
