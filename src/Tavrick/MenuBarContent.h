#pragma once

#include "CoreKit/MenuModel.h"
#include "CoreKit/Observable.h"
#include "AwakeKit/AwakeModels.h"
#include "CoreKit/SettingsTypes.h"
#include "FanCore/FanReading.h"
#include "Tavrick/BackupMenu.h"
#include "VaultKit/VaultCrypto.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

class AppCoordinator;

// The menu bar item's own text: the icon's name, then the readout when one is chosen.
namespace MenuBarLabel {
// "gearshape" or "MenuBarGlyph"; with a readout, two spaces and the figure ("2.4k", "61°").
std::string text(MenuBarIconStyle style, MenuBarReadout readout, const std::vector<FanReading>& fans,
                 std::optional<double> hottest);
} // namespace MenuBarLabel

// The menu: the sections the user enabled, in the stored order, each drawn from its service's
// state, then Settings, Check for Updates… and Quit. Ids are stable while a line means the same
// thing. Main queue only; the coordinator must outlive it.
class MenuBarContent final : public MenuSource {
public:
    // How many copies the clipboard section lists, and how many programs the network one.
    static constexpr std::size_t clipboardLines = 10;
    static constexpr std::size_t networkLines = 5;

    explicit MenuBarContent(AppCoordinator& coordinator);
    ~MenuBarContent() override;
    MenuBarContent(const MenuBarContent&) = delete;
    MenuBarContent& operator=(const MenuBarContent&) = delete;

    MenuSnapshot snapshot() const override;
    bool activate(const std::string& id) override;
    bool submit(const std::string& id, const std::string& text) override;
    int addChangeObserver(std::function<void()> observer) override;
    void removeChangeObserver(int token) override;
    void menuWillOpen() override;
    void menuDidClose() override;

    // "Quit": the host ends the program its own way.
    std::function<void()> onQuit;
    // What drag snapping offers the menu once it is built in: its last start failure, shown
    // under the switch, and what to do when the switch turns (beyond storing the setting).
    std::function<std::optional<std::string>()> snapError;
    std::function<void(bool enabled)> onSnappingChanged;
    // How hard a backup file's passphrase is stretched; set before the menu is first drawn.
    std::int64_t backupRounds = VaultCrypto::iterations;

private:
    struct Built;
    Built build() const;
    void changed();
    void observeServices();
    void toast(const std::string& title, bool warning, const std::optional<std::string>& detail) const;
    void buildVault(Built& b, std::vector<MenuEntry>& out) const;

    AppCoordinator& c_;
    std::vector<Observation> observations_;
    std::map<int, std::function<void()>> observers_;
    int nextToken_ = 1;
    bool isOpen_ = false;
    // The keep-awake mode picked while no session runs; the next session takes it.
    std::optional<AwakeMode> chosenAwakeMode_;
    // The vault gate's choices while it is drawn: a passphrase or not, the first of the two
    // passphrases typed on creation (wiped once used), and whether to remember the next one.
    bool askForPassphrase_ = true;
    std::string newPassphrase_;
    bool rememberNext_ = false;
    // "Back Up…" and "Restore…", made when Settings is first drawn.
    mutable std::unique_ptr<BackupMenu> backup_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace tavrick
