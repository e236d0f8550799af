#include "Tavrick/BackupMenu.h"

#include "CoreKit/Toast.h"
#include "CoreKit/UnicodeText.h"
#include "Tavrick/AppCoordinator.h"
#include "VaultKit/VaultCrypto.h"

#include <system_error>

namespace tavrick {

namespace {

using Kind = MenuEntry::Kind;

MenuEntry line(std::string id, Kind kind, std::string title, bool enabled = true) {
    MenuEntry e;
    e.id = std::move(id);
    e.kind = kind;
    e.title = std::move(title);
    e.isEnabled = enabled;
    return e;
}

MenuEntry secret(std::string id, std::string title, bool typed) {
    auto e = line(std::move(id), Kind::field, std::move(title) + (typed ? " (typed)" : ""));
    e.isSecret = true;
    return e;
}

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// "~" and "~/..." are the home folder; a relative path is taken from the home folder too, since
// the menu has no working folder a user could see.
std::filesystem::path expanded(const std::string& typed, const std::filesystem::path& home) {
    const std::string t = trimmed(typed);
    if (t == "~") return home;
    if (t.rfind("~/", 0) == 0) return home / t.substr(2);
    const std::filesystem::path path(t);
    return path.is_absolute() ? path : home / path;
}

void warn(const std::string& title, const std::optional<std::string>& detail = std::nullopt) {
    Toast::shared().show(title, Toast::Kind::warning, detail);
}

std::string joined(const std::vector<std::string>& parts) {
    std::string out;
    for (const auto& part : parts) out += (out.empty() ? "" : ", ") + part;
    return out;
}

} // namespace

BackupMenu::BackupMenu(AppCoordinator& coordinator, std::function<void()> changed, std::int64_t rounds)
    : c_(coordinator), changed_(std::move(changed)), rounds_(rounds) {}

BackupMenu::~BackupMenu() {
    *alive_ = false;
    forgetPassphrases();
}

void BackupMenu::forgetPassphrases() {
    if (export_) {
        VaultCrypto::wipe(export_->passphrase);
        VaultCrypto::wipe(export_->passphraseRepeat);
    }
    if (import_) VaultCrypto::wipe(import_->passphrase);
}

BackupExportModel& BackupMenu::exporter() {
    if (!export_) export_ = std::make_unique<BackupExportModel>(c_.backupTarget(), rounds_);
    return *export_;
}

void BackupMenu::build(std::vector<MenuEntry>& into, Commands& commands, Fields& fields) {
    buildExport(into, commands, fields);
    buildImport(into, commands, fields);
}

void BackupMenu::buildExport(std::vector<MenuEntry>& into, Commands& commands, Fields& fields) {
    BackupExportModel& m = exporter();
    auto menu = line("settings.backup", Kind::submenu, "Back Up…");
    auto& out = menu.children;
    auto add = [&](MenuEntry e, std::function<void()> run = nullptr) {
        if (run && e.isEnabled) commands[e.id] = std::move(run);
        out.push_back(std::move(e));
    };
    std::weak_ptr<bool> alive = alive_;
    auto redraw = [this] { changed_(); };

    add(line("settings.backup.intro", Kind::label, BackupTexts::introduction));
    const std::filesystem::path file = exportFile_.empty() ? c_.home() / m.suggestedName() : exportFile_;
    auto where = line("settings.backup.file", Kind::field, BackupTexts::savePrompt);
    where.value = file.string();
    fields[where.id] = [this, redraw](const std::string& typed) {
        if (trimmed(typed).empty()) {
            exportFile_.clear();
            redraw();
            return true;
        }
        std::filesystem::path path = expanded(typed, c_.home());
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) path /= exporter().suggestedName();
        if (!std::filesystem::is_directory(path.parent_path(), error)) {
            warn("The backup was not saved there", "There is no folder " + path.parent_path().string());
            return false;
        }
        exportFile_ = path;
        redraw();
        return true;
    };
    out.push_back(std::move(where));

    auto toggle = [&](const char* key, std::string title, bool& value) {
        auto e = line(std::string("settings.backup.") + key, Kind::toggle, std::move(title));
        e.isOn = value;
        add(std::move(e), [&value, redraw] {
            value = !value;
            redraw();
        });
    };
    // A section with nothing in it is not offered at all.
    toggle("settings", "Settings", m.settings);
    if (m.mappingCount() > 0) toggle("bindings", BackupRestore::counted(m.mappingCount(), "binding", "bindings"), m.bindings);
    if (const auto tweaks = m.appliedTweaks().size(); tweaks > 0)
        toggle("tweaks", BackupRestore::counted(tweaks, "tweak", "tweaks"), m.tweaks);
    if (m.hasNote()) toggle("notepad", "The note", m.notepad);
    if (m.canIncludeSecrets()) {
        toggle("secrets", m.secretsLabel(), m.secrets);
    } else {
        add(line("settings.backup.secrets", Kind::toggle, m.secretsLabel(), false));
        if (auto note = m.secretsNote()) add(line("settings.backup.secrets.note", Kind::label, *note));
    }

    if (m.effectivePlan().secrets) {
        auto first = secret("settings.backup.passphrase", BackupTexts::passphraseField, !m.passphrase.empty());
        fields[first.id] = [this, redraw](const std::string& text) {
            if (UnicodeText::characterCount(text) < BackupExportModel::minimumPassphraseLength) {
                warn("The passphrase was not taken", "It needs at least 8 characters");
                return false;
            }
            VaultCrypto::wipe(exporter().passphrase);
            exporter().passphrase = text;
            redraw();
            return true;
        };
        out.push_back(std::move(first));
        auto repeat =
            secret("settings.backup.repeat", std::string(BackupTexts::passphraseField) + ", again", !m.passphraseRepeat.empty());
        fields[repeat.id] = [this, redraw](const std::string& text) {
            if (text != exporter().passphrase) {
                warn("The two passphrases differ", "Type the same passphrase in both fields");
                return false;
            }
            VaultCrypto::wipe(exporter().passphraseRepeat);
            exporter().passphraseRepeat = text;
            redraw();
            return true;
        };
        out.push_back(std::move(repeat));
        add(line("settings.backup.explanation", Kind::label, BackupTexts::passphraseExplanation));
    }
    add(line("settings.backup.plain", Kind::label, BackupTexts::plainNote));

    std::error_code error;
    const bool replaces = std::filesystem::exists(file, error);
    std::string title = exporting_ ? "Backing Up…" : replaces ? "Back Up, Replacing " + file.filename().string() : "Back Up";
    add(line("settings.backup.export", Kind::command, std::move(title), !exporting_ && m.isReady()),
        [this, alive, file] {
            if (alive.expired()) return;
            exportFile_ = file;
            startExport();
        });
    if (exportResult_) add(line("settings.backup.result", Kind::label, *exportResult_));
    into.push_back(std::move(menu));
}

void BackupMenu::startExport() {
    BackupExportModel& m = exporter();
    if (exporting_ || !m.isReady()) return;
    exporting_ = true;
    exportResult_.reset();
    const auto captions = joined(m.captions());
    const std::filesystem::path file = exportFile_;
    std::weak_ptr<bool> alive = alive_;
    m.exportTo(file, [this, alive, captions, file](std::optional<std::string> failure) {
        if (alive.expired()) return;
        exporting_ = false;
        // The next export starts from what is there then; the choices and the file stay.
        auto next = std::make_unique<BackupExportModel>(c_.backupTarget(), rounds_);
        next->settings = export_->settings;
        next->bindings = export_->bindings;
        next->tweaks = export_->tweaks;
        next->notepad = export_->notepad;
        next->secrets = export_->secrets;
        VaultCrypto::wipe(export_->passphrase);
        VaultCrypto::wipe(export_->passphraseRepeat);
        export_ = std::move(next);
        if (failure) {
            exportResult_ = "⚠︎ " + *failure;
            warn(*failure);
            c_.log().note("backup", "backup from the menu failed: " + *failure);
        } else {
            exportResult_ = "Written to " + file.string() + ": " + captions + ".";
            Toast::shared().show("Backup saved", Toast::Kind::done, file.string() + ": " + captions);
            c_.log().note("backup", "backup written from the menu: " + captions);
        }
        changed_();
    });
    changed_();
}

void BackupMenu::buildImport(std::vector<MenuEntry>& into, Commands& commands, Fields& fields) {
    auto menu = line("settings.restore", Kind::submenu, "Restore…");
    auto& out = menu.children;
    auto add = [&](MenuEntry e, std::function<void()> run = nullptr) {
        if (run && e.isEnabled) commands[e.id] = std::move(run);
        out.push_back(std::move(e));
    };
    std::weak_ptr<bool> alive = alive_;
    auto redraw = [this] { changed_(); };
    const auto* pending = import_ ? &import_->pending() : nullptr;
    const bool isOpen = pending && pending->has_value();

    auto which = line("settings.restore.file", Kind::field, BackupTexts::openPrompt);
    if (isOpen) which.value = (*pending)->url.string();
    fields[which.id] = [this, redraw](const std::string& typed) {
        if (restoring_) return false;
        if (trimmed(typed).empty()) return false;
        if (import_) VaultCrypto::wipe(import_->passphrase);
        import_ = std::make_unique<BackupImportModel>(c_.backupTarget());
        vaultFailure_.reset();
        if (auto refused = import_->open(expanded(typed, c_.home()))) {
            import_.reset();
            warn(*refused);
            redraw();
            return false;
        }
        redraw();
        return true;
    };
    out.push_back(std::move(which));
    if (!isOpen) {
        into.push_back(std::move(menu));
        return;
    }

    BackupImportModel& m = *import_;
    const auto contents = m.contents();
    add(line("settings.restore.identification", Kind::label, m.identification()));
    add(line("settings.restore.title", Kind::label, BackupTexts::restoreTitle));
    if (contents.isEmpty()) add(line("settings.restore.empty", Kind::label, BackupTexts::emptyArchive));

    auto toggle = [&](const char* key, std::string title, bool& value, bool enabled = true) {
        auto e = line(std::string("settings.restore.") + key, Kind::toggle, std::move(title), enabled && !restoring_);
        e.isOn = value;
        add(std::move(e), [&value, redraw] {
            value = !value;
            redraw();
        });
    };
    auto note = [&](const char* key, const char* text) {
        add(line(std::string("settings.restore.") + key + ".note", Kind::label, text));
    };
    if (contents.settings) toggle("settings", "Settings", m.plan.settings);
    if (contents.bindings > 0) {
        toggle("bindings", BackupRestore::counted(static_cast<std::size_t>(contents.bindings), "binding", "bindings"),
               m.plan.bindings);
        note("bindings", BackupTexts::bindingsNote);
    }
    if (auto skipped = m.skippedNote()) add(line("settings.restore.skipped", Kind::label, *skipped));
    if (contents.tweaks > 0) {
        toggle("tweaks", BackupRestore::counted(static_cast<std::size_t>(contents.tweaks), "tweak", "tweaks"),
               m.plan.tweaks);
        note("tweaks", BackupTexts::tweaksNote);
    }
    if (contents.notepad) {
        toggle("notepad", "The note", m.plan.notepad);
        note("notepad", BackupTexts::notepadNote);
    }
    if (contents.secrets) {
        if (!m.canChooseSecrets()) m.plan.secrets = false;
        toggle("secrets", BackupTexts::secretsRow, m.plan.secrets, m.canChooseSecrets());
        // The file's passphrase first: a wrong one is refused before the vault is asked for.
        auto passphrase = secret("settings.restore.passphrase", BackupTexts::passphraseField, !m.passphrase.empty());
        fields[passphrase.id] = [this, alive, redraw](const std::string& text) {
            if (!import_ || !import_->pending()) return false;
            // The key derivation takes a moment at full strength: it runs off the main queue, on
            // a copy of the archive, and the answer comes back only if the menu is still there.
            Scheduler& scheduler = c_.scheduler();
            scheduler.global(QoS::userInitiated, [this, alive, redraw, &scheduler, archive = import_->pending()->archive,
                                                  attempt = text]() mutable {
                const bool opened = ArchiveBuilder::opens(archive, attempt);
                scheduler.async([this, alive, redraw, opened, attempt = std::move(attempt)]() mutable {
                    if (alive.expired() || !import_) return VaultCrypto::wipe(attempt);
                    if (!opened) {
                        VaultCrypto::wipe(attempt);
                        warn(ArchiveError::wrongPassphrase().what());
                        return redraw();
                    }
                    VaultCrypto::wipe(import_->passphrase);
                    import_->passphrase = std::move(attempt);
                    redraw();
                });
            });
            return true;
        };
        out.push_back(std::move(passphrase));
        Vault& vault = c_.vault();
        if (vault.isUnlocked.get()) {
            add(line("settings.restore.secrets.note", Kind::label, BackupTexts::mergeSentence));
        } else {
            add(line("settings.restore.secrets.note", Kind::label, BackupTexts::importVaultLocked));
            auto opened = [this, alive](std::optional<std::string> failure) {
                if (alive.expired()) return;
                vaultFailure_ = failure;
                if (failure) {
                    warn(*failure);
                } else if (import_ && import_->canChooseSecrets()) {
                    // Opening the vault here means the entries are wanted.
                    import_->plan.secrets = true;
                }
                changed_();
            };
            if (vault.exists() && vault.protection.get() == VaultCrypto::Protection::unprotected) {
                add(line("settings.restore.vault", Kind::command, "Open the Vault"), [&vault, opened] {
                    try {
                        vault.open();
                        opened(std::nullopt);
                    } catch (const std::exception& error) {
                        opened(std::string(error.what()));
                    }
                });
            } else if (vault.exists()) {
                auto field = secret("settings.restore.vault", "Vault passphrase", false);
                fields[field.id] = [&vault, opened](const std::string& text) {
                    if (text.empty()) return false;
                    vault.unlock(text, opened);
                    return true;
                };
                out.push_back(std::move(field));
            }
            if (vaultFailure_) add(line("settings.restore.vault.failure", Kind::label, "⚠︎ " + *vaultFailure_));
        }
    }

    const auto sentences = m.confirmation();
    for (std::size_t i = 0; i < sentences.size(); ++i)
        add(line("settings.restore.confirm." + std::to_string(i), Kind::label, sentences[i]));
    const BackupPlan& plan = m.plan;
    const bool chosen = (plan.settings && contents.settings) || (plan.bindings && contents.bindings > 0) ||
                        (plan.tweaks && contents.tweaks > 0) || (plan.notepad && contents.notepad) ||
                        (plan.secrets && contents.secrets);
    const bool keyed = !(plan.secrets && contents.secrets) || !m.passphrase.empty();
    add(line("settings.restore.apply", Kind::command, restoring_ ? "Restoring…" : "Restore",
             chosen && keyed && !restoring_),
        [this, alive] {
            if (!alive.expired()) startRestore();
        });
    if (const auto& outcome = m.outcome(); outcome && outcome->error)
        add(line("settings.restore.outcome", Kind::label, "⚠︎ " + outcome->text()));
    add(line("settings.restore.cancel", Kind::command, "Cancel", !restoring_), [this, redraw] {
        forgetPassphrases();
        import_.reset();
        vaultFailure_.reset();
        redraw();
    });
    into.push_back(std::move(menu));
}

void BackupMenu::startRestore() {
    if (!import_ || restoring_) return;
    restoring_ = true;
    std::weak_ptr<bool> alive = alive_;
    import_->restore([this, alive](const BackupRestore::Outcome& outcome) {
        if (alive.expired()) return;
        restoring_ = false;
        const std::string text = outcome.text();
        if (outcome.error) {
            // The sheet stays open on the error, with what was chosen.
            warn(text);
            c_.log().note("backup", "restore from the menu failed: " + text);
        } else {
            Toast::shared().show("Backup restored", Toast::Kind::done, text);
            c_.log().note("backup", "restored from the menu: " + text);
            forgetPassphrases();
            import_.reset();
        }
        changed_();
    });
    changed_();
}

} // namespace tavrick
