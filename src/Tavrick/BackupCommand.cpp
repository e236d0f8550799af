#include "Tavrick/BackupCommand.h"

#include "Tavrick/AppCoordinator.h"
#include "CoreKit/UnicodeText.h"
#include "VaultKit/VaultCrypto.h"

#include <algorithm>
#include <iostream>
#include <termios.h>
#include <unistd.h>

namespace tavrick::BackupCommand {

std::optional<Request> parse(const std::vector<std::string>& arguments, std::vector<std::string>* problems) {
    for (auto [flag, kind] : {std::pair{exportFlag, Request::Kind::exportBackup},
                              std::pair{importFlag, Request::Kind::importBackup}}) {
        auto at = std::find(arguments.begin(), arguments.end(), flag);
        if (at == arguments.end()) continue;
        // Another flag where the file should be means the file was forgotten.
        if (at + 1 == arguments.end() || (at + 1)->empty() || (at + 1)->rfind("--", 0) == 0) {
            if (problems) problems->push_back(std::string(flag) + " needs a backup file; ignoring it");
            continue;
        }
        return Request{kind, *(at + 1)};
    }
    return std::nullopt;
}

std::optional<std::string> readSecretLine(const std::string& prompt) {
    std::string line;
    if (::isatty(STDIN_FILENO)) {
        std::cerr << prompt << std::flush;
        termios saved{};
        const bool quiet = ::tcgetattr(STDIN_FILENO, &saved) == 0;
        if (quiet) {
            termios silent = saved;
            silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
        }
        const bool got = static_cast<bool>(std::getline(std::cin, line));
        if (quiet) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
        std::cerr << "\n";
        if (!got) return std::nullopt;
    } else if (!std::getline(std::cin, line)) {
        return std::nullopt;
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

namespace {

std::string joined(const std::vector<std::string>& parts) {
    std::string out;
    for (const auto& part : parts) out += (out.empty() ? "" : ", ") + part;
    return out;
}

// Opens the vault the way its owner would: an unprotected one at once, a sealed one with its
// passphrase, and where there is none, a new one. The failure's sentence, or nothing.
std::optional<std::string> openVault(Vault& vault, Console& console) {
    if (vault.isUnlocked.get()) return std::nullopt;
    std::optional<std::optional<std::string>> result;
    auto done = [&result](std::optional<std::string> error) { result = std::move(error); };
    if (!vault.exists()) {
        auto passphrase = console.readSecret("Passphrase for the new vault (empty for none): ").value_or("");
        vault.create(passphrase.empty() ? std::nullopt : std::optional<std::string>(passphrase), done);
        VaultCrypto::wipe(passphrase);
    } else if (vault.protection.get() == VaultCrypto::Protection::unprotected) {
        try {
            vault.open();
        } catch (const std::exception& error) {
            return std::string(error.what());
        }
        return std::nullopt;
    } else {
        auto passphrase = console.readSecret("Vault passphrase: ").value_or("");
        vault.unlock(passphrase, done);
        VaultCrypto::wipe(passphrase);
    }
    console.runUntil([&result] { return result.has_value(); });
    return *result;
}

int exportBackup(AppCoordinator& coordinator, const std::filesystem::path& file, Console& console) {
    auto model = coordinator.makeBackupExport();
    Vault& vault = coordinator.vault();
    // A locked vault's entries can only go in once it is open; without its passphrase the rest
    // is still written.
    if (vault.exists() && !vault.isUnlocked.get()) {
        if (auto failure = openVault(vault, console)) {
            console.out << *failure << " The vault's entries are left out.\n";
        }
        model = coordinator.makeBackupExport();
    }
    if (model->canIncludeSecrets()) {
        model->passphrase = console.readSecret(std::string(BackupTexts::passphraseField) + ": ").value_or("");
        model->passphraseRepeat = console.readSecret("The same passphrase again: ").value_or("");
        if (UnicodeText::characterCount(model->passphrase) < BackupExportModel::minimumPassphraseLength) {
            console.out << "The passphrase for this file needs at least 8 characters. Nothing was written.\n";
            return 1;
        }
        if (model->passphrase != model->passphraseRepeat) {
            console.out << "The two passphrases differ. Nothing was written.\n";
            return 1;
        }
    } else if (auto note = model->secretsNote()) {
        console.out << "No secrets: " << *note << "\n";
    }
    const auto captions = model->captions();
    std::optional<std::optional<std::string>> result;
    model->exportTo(file, [&result](std::optional<std::string> failure) { result = std::move(failure); });
    console.runUntil([&result] { return result.has_value(); });
    VaultCrypto::wipe(model->passphrase);
    VaultCrypto::wipe(model->passphraseRepeat);
    if (*result) {
        console.out << **result << "\n";
        return 1;
    }
    console.out << "Backup written to " << file.string() << ": " << joined(captions) << ".\n"
                << BackupTexts::plainNote << "\n";
    return 0;
}

int importBackup(AppCoordinator& coordinator, const std::filesystem::path& file, Console& console) {
    auto model = coordinator.makeBackupImport();
    if (auto refused = model->open(file)) {
        console.out << *refused << "\n";
        return 1;
    }
    console.out << model->identification() << ".\n";
    if (auto skipped = model->skippedNote()) console.out << *skipped << "\n";
    if (model->contents().secrets) {
        model->passphrase = console.readSecret(std::string(BackupTexts::passphraseField) + ": ").value_or("");
        // A wrong passphrase is refused before the vault is asked for, let alone made.
        if (!ArchiveBuilder::opens(model->pending()->archive, model->passphrase)) {
            VaultCrypto::wipe(model->passphrase);
            console.out << ArchiveError::wrongPassphrase().what() << "\n";
            return 1;
        }
        if (auto failure = openVault(coordinator.vault(), console)) console.out << *failure << "\n";
        // The secrets are chosen whenever the file holds them: a vault that stayed locked is
        // refused by the restore itself, before anything changes.
        model->plan.secrets = true;
    }
    std::optional<BackupRestore::Outcome> outcome;
    model->restore([&outcome](const BackupRestore::Outcome& result) { outcome = result; });
    console.runUntil([&outcome] { return outcome.has_value(); });
    VaultCrypto::wipe(model->passphrase);
    console.out << outcome->text() << "\n";
    return outcome->error ? 1 : 0;
}

} // namespace

int run(AppCoordinator& coordinator, const Request& request, Console& console) {
    switch (request.kind) {
    case Request::Kind::exportBackup: return exportBackup(coordinator, request.file, console);
    case Request::Kind::importBackup: return importBackup(coordinator, request.file, console);
    }
    return 2;
}

} // namespace tavrick::BackupCommand
