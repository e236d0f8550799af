#pragma once

#include "BackupKit/Archive.h"
#include "CoreKit/AppSettings.h"
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/Keychain.h"
#include "CoreKit/MappingStore.h"
#include "NotepadKit/Notepad.h"
#include "TweakKit/Tweaks.h"
#include "VaultKit/Vault.h"

#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavrick {

// What a backup is made from and restored into: the stores the coordinator owns, and the few
// things only the coordinator can do. Everything here is used on the main queue.
struct BackupTarget {
    PreferenceStore& defaults;
    AppSettings& settings;
    MappingStore& store;
    Notepad& notepad;
    Vault& vault;
    Keychain& keychain;
    DiagnosticLog& log;
    Scheduler& scheduler;
    std::string appVersion;
    std::function<std::string()> machineName;
    // Whether a tweak reads as on now.
    std::function<bool(const Tweak&)> isTweakOn;
    // Sets each tweak and restarts what must re-read them; gives how many took effect.
    std::function<void(const std::vector<Tweak>&, std::function<void(int)>)> applyTweaks;
    // Brings the running services in line with settings that were just reloaded.
    std::function<void()> settingsDidReload;
};

// The keychain accounts of the AI providers' keys, in the providers' order. The first one has no
// "api-key-" prefix because it predates the others.
const std::vector<std::string>& aiKeyAccounts();

namespace BackupRestore {

class VaultLocked : public std::runtime_error {
public:
    VaultLocked()
        : std::runtime_error(
              "The vault locked while this was open. Unlock it and try again — nothing has been changed.") {}
};

class BindingsWriteFailed : public std::runtime_error {
public:
    BindingsWriteFailed()
        : std::runtime_error("The bindings could not be written to disk. They are in use now, but the old set will "
                             "come back at the next launch.") {}
};

class KeyWriteFailed : public std::runtime_error {
public:
    explicit KeyWriteFailed(std::vector<std::string> accounts);
    const std::vector<std::string>& accounts() const { return accounts_; }

private:
    std::vector<std::string> accounts_;
};

// A later step failed after earlier ones had changed things: what was done, and why it stopped.
class PartialFailure : public std::runtime_error {
public:
    PartialFailure(std::vector<std::string> done, std::exception_ptr underlying);
    const std::vector<std::string>& done() const { return done_; }
    std::exception_ptr underlying() const { return underlying_; }

private:
    std::vector<std::string> done_;
    std::exception_ptr underlying_;
};

// The summary text on success, or the error that stopped it.
struct Outcome {
    std::optional<std::string> summary;
    std::exception_ptr error;
    // The summary, or the error's sentence.
    std::string text() const;
};

// "1 binding", "12 bindings".
std::string counted(std::size_t count, const std::string& singular, const std::string& plural);

// Applies the chosen sections of a read archive, in an order that lets everything that can be
// refused be refused before anything changes. Starts on the main queue; the decryption runs on
// the pool; `done` is called once, on the main queue.
void apply(const Archive& archive, const BackupPlan& plan, std::string passphrase, BackupTarget& target,
           std::function<void(Outcome)> done);

} // namespace BackupRestore

} // namespace tavrick
