#include "Tavrick/BackupRestore.h"

#include "BackupKit/SettingsSnapshot.h"
#include "CoreKit/Log.h"

#include <algorithm>
#include <memory>
#include <set>

namespace tavrick {

const std::vector<std::string>& aiKeyAccounts() {
    static const std::vector<std::string> accounts{
        "anthropic-api-key", "api-key-openAI", "api-key-gemini",   "api-key-openRouter",
        "api-key-xAI",       "api-key-custom", "api-key-onDevice",
    };
    return accounts;
}

namespace BackupRestore {

namespace {

std::string joined(const std::vector<std::string>& parts, const std::string& separator) {
    std::string out;
    for (const auto& part : parts) {
        if (!out.empty()) out += separator;
        out += part;
    }
    return out;
}

std::string describe(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "Something went wrong.";
    }
}

std::string partialText(const std::vector<std::string>& done, const std::exception_ptr& underlying) {
    std::string text = describe(underlying);
    if (done.empty()) return text;
    return text + " Restored before it stopped: " + joined(done, ", ") + ".";
}

// One restore in flight: what it was given and how far it got.
struct Run {
    Archive archive;
    BackupPlan plan;
    BackupTarget& target;
    std::function<void(Outcome)> done;
    Archive::Secrets secrets;
    std::vector<std::string> phrases;

    void finish(Outcome outcome) {
        auto callback = std::move(done);
        done = nullptr;
        if (callback) callback(std::move(outcome));
    }
    void fail(std::exception_ptr error) { finish(Outcome{std::nullopt, std::move(error)}); }
    void partial(std::exception_ptr underlying) {
        fail(std::make_exception_ptr(PartialFailure(phrases, std::move(underlying))));
    }
};

void applyTweaksAndFinish(const std::shared_ptr<Run>& run) {
    const auto& plan = run->plan;
    const auto& archive = run->archive;
    auto finish = [run] {
        run->finish(Outcome{run->phrases.empty() ? std::string("Nothing to restore.") : joined(run->phrases, ", "),
                            nullptr});
    };
    if (!plan.tweaks || !archive.tweaks || archive.tweaks->empty()) return finish();
    // The table's order, not the file's; ids this build does not know are passed over.
    const std::set<std::string> wanted(archive.tweaks->begin(), archive.tweaks->end());
    std::vector<Tweak> found;
    for (const auto& tweak : Tweaks::all()) {
        if (wanted.count(tweak.id)) found.push_back(tweak);
    }
    if (found.empty() || !run->target.applyTweaks) return finish();
    // Applying may restart the file manager and the dock, so it comes last.
    run->target.applyTweaks(found, [run, finish](int applied) {
        run->phrases.push_back(counted(static_cast<std::size_t>(std::max(applied, 0)), "tweak", "tweaks"));
        finish();
    });
}

void applyAfterSecrets(const std::shared_ptr<Run>& run) {
    BackupTarget& target = run->target;
    const auto& plan = run->plan;
    const auto& archive = run->archive;

    if (plan.settings && archive.settings) {
        std::vector<std::string> written;
        try {
            written = SettingsSnapshot::apply(*archive.settings, target.defaults);
        } catch (...) {
            return run->partial(std::current_exception());
        }
        // A setting the backup does not hold returns to its default: the result is the snapshot,
        // not a mix of it and what was here.
        const std::set<std::string> kept(written.begin(), written.end());
        for (const char* key : AppSettings::backedUpKeys) {
            if (!SettingsSnapshot::carries(key) || kept.count(key)) continue;
            target.defaults.remove(key);
        }
        target.settings.reload();
        if (target.settingsDidReload) target.settingsDidReload();
        run->phrases.push_back(std::to_string(written.size()) + " settings");
    }

    if (plan.bindings && archive.bindings) {
        if (!target.store.replaceAll(*archive.bindings)) {
            return run->partial(std::make_exception_ptr(BindingsWriteFailed()));
        }
        std::string phrase = counted(archive.bindings->size(), "binding", "bindings");
        if (archive.skippedBindings >= 1) {
            const auto n = std::to_string(archive.skippedBindings);
            phrase += " (" + n + " left out: this version cannot read " + (archive.skippedBindings == 1 ? "it" : "them") +
                      ")";
            target.log.note("backup", "restore left out " + n + " unreadable bindings");
        }
        run->phrases.push_back(phrase);
    }

    if (plan.notepad && archive.notepad) {
        target.notepad.setText(*archive.notepad);
        target.notepad.flush();
        run->phrases.push_back("the note");
    }

    if (!run->secrets.vault.empty()) {
        Vault::MergeCount count;
        try {
            count = target.vault.merge(run->secrets.vault);
        } catch (...) {
            return run->partial(std::current_exception());
        }
        if (count.added > 0 && count.replaced > 0) {
            run->phrases.push_back(std::to_string(count.added) + " new and " + std::to_string(count.replaced) +
                                   " updated vault entries");
        } else {
            run->phrases.push_back(std::to_string(count.added + count.replaced) + " vault entries");
        }
    }

    std::size_t stored = 0;
    std::vector<std::string> failed;
    for (const auto& [account, key] : run->secrets.apiKeys) {
        if (key.empty()) continue;
        if (target.keychain.set(key, account)) {
            stored += 1;
        } else {
            failed.push_back(account);
        }
    }
    for (auto& [account, key] : run->secrets.apiKeys) VaultCrypto::wipe(key);
    if (stored > 0) run->phrases.push_back(counted(stored, "AI key", "AI keys"));
    if (!failed.empty()) return run->partial(std::make_exception_ptr(KeyWriteFailed(failed)));

    applyTweaksAndFinish(run);
}

} // namespace

KeyWriteFailed::KeyWriteFailed(std::vector<std::string> accounts)
    : std::runtime_error("The keychain would not store " +
                         std::string(accounts.size() == 1 ? "an AI key" : "some AI keys") +
                         ", and the one that was there is gone. Paste it in again in Settings › Selection."),
      accounts_(std::move(accounts)) {}

PartialFailure::PartialFailure(std::vector<std::string> done, std::exception_ptr underlying)
    : std::runtime_error(partialText(done, underlying)), done_(std::move(done)), underlying_(std::move(underlying)) {}

std::string Outcome::text() const {
    if (error) return describe(error);
    return summary.value_or("");
}

std::string counted(std::size_t count, const std::string& singular, const std::string& plural) {
    return std::to_string(count) + " " + (count == 1 ? singular : plural);
}

void apply(const Archive& archive, const BackupPlan& plan, std::string passphrase, BackupTarget& target,
           std::function<void(Outcome)> done) {
    auto run = std::make_shared<Run>(Run{archive, plan, target, std::move(done), {}, {}});
    if (plan.isEmpty()) {
        VaultCrypto::wipe(passphrase);
        return run->fail(std::make_exception_ptr(ArchiveError::nothingSelected()));
    }
    if (!(plan.secrets && archive.secrets)) {
        VaultCrypto::wipe(passphrase);
        return applyAfterSecrets(run);
    }
    // Secrets first: they are what can be refused, and nothing has changed yet.
    if (!target.vault.isUnlocked.get()) {
        VaultCrypto::wipe(passphrase);
        return run->fail(std::make_exception_ptr(VaultLocked()));
    }
    Scheduler& scheduler = target.scheduler;
    scheduler.global(QoS::userInitiated, [run, passphrase = std::move(passphrase), &scheduler]() mutable {
        std::exception_ptr error;
        Archive::Secrets secrets;
        try {
            secrets = ArchiveBuilder::secrets(run->archive, passphrase);
        } catch (...) {
            error = std::current_exception();
        }
        VaultCrypto::wipe(passphrase);
        scheduler.async([run, error, secrets = std::move(secrets)]() mutable {
            if (error) return run->fail(error);
            run->secrets = std::move(secrets);
            applyAfterSecrets(run);
        });
    });
}

} // namespace BackupRestore

} // namespace tavrick
