#pragma once

#include "CoreKit/MenuModel.h"
#include "Tavrick/BackupSection.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

class AppCoordinator;

// "Back Up…" and "Restore…" in the Settings submenu: the two backup sheets drawn as menu lines.
// The file is a field (the export's defaults to the suggested name in the home folder),
// passphrases are secret fields, the sections are switches, and what the models say is shown in
// their words. Main queue; the coordinator must outlive it.
class BackupMenu {
public:
    using Commands = std::map<std::string, std::function<void()>>;
    using Fields = std::map<std::string, std::function<bool(const std::string&)>>;

    // `changed` redraws the menu; `rounds` is how hard the file's passphrase is stretched.
    BackupMenu(AppCoordinator& coordinator, std::function<void()> changed,
               std::int64_t rounds = VaultCrypto::iterations);
    ~BackupMenu();
    BackupMenu(const BackupMenu&) = delete;
    BackupMenu& operator=(const BackupMenu&) = delete;

    // Appends the two submenus with what their lines do.
    void build(std::vector<MenuEntry>& into, Commands& commands, Fields& fields);

private:
    void buildExport(std::vector<MenuEntry>& into, Commands& commands, Fields& fields);
    void buildImport(std::vector<MenuEntry>& into, Commands& commands, Fields& fields);
    BackupExportModel& exporter();
    void startExport();
    void startRestore();
    void forgetPassphrases();

    AppCoordinator& c_;
    std::function<void()> changed_;
    std::int64_t rounds_;

    std::unique_ptr<BackupExportModel> export_;
    // Empty until the user types one: the suggested name in the home folder is shown instead.
    std::filesystem::path exportFile_;
    bool exporting_ = false;
    std::optional<std::string> exportResult_;

    std::unique_ptr<BackupImportModel> import_;
    bool restoring_ = false;
    std::optional<std::string> vaultFailure_;

    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace tavrick
