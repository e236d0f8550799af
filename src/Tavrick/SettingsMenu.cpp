#include "Tavrick/SettingsMenu.h"

#include "CoreKit/Appearance.h"
#include "CoreKit/Toast.h"
#include "AIKit/AIProvider.h"
#include "Tavrick/AppCoordinator.h"

#include <algorithm>
#include <charconv>

namespace tavrick::SettingsMenu {

namespace {

using Kind = MenuEntry::Kind;

MenuEntry line(std::string id, Kind kind, std::string title) {
    return MenuEntry::make(std::move(id), kind, std::move(title));
}

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

void refuse(const std::string& what, const std::string& why) {
    Toast::shared().show(what + " was not changed", Toast::Kind::warning, why);
}

struct Builder {
    AppCoordinator& c;
    std::vector<MenuEntry>& into;
    Commands& commands;
    Fields& fields;

    void toggle(const char* key, const std::string& title, Setting<bool>& setting) {
        auto e = line(std::string("settings.") + key, Kind::toggle, title);
        e.isOn = setting.get();
        commands[e.id] = [&setting] { setting.set(!setting.get()); };
        into.push_back(std::move(e));
    }

    template <class T>
    void choice(const char* key, const std::string& title, Setting<T>& setting, std::function<void(T)> after = nullptr) {
        auto menu = line(std::string("settings.") + key, Kind::submenu, title + ": " + std::string(displayName(setting.get())));
        for (T value : allCases<T>()) {
            auto e = line(menu.id + "." + std::string(rawValue(value)), Kind::toggle, std::string(displayName(value)));
            e.isOn = setting.get() == value;
            commands[e.id] = [&setting, value, after] {
                setting.set(value);
                if (after) after(value);
            };
            menu.children.push_back(std::move(e));
        }
        into.push_back(std::move(menu));
    }

    // A number; `clamps` brings text outside the range in, otherwise it is refused.
    void number(const char* key, const std::string& title, Setting<std::int64_t>& setting, std::int64_t low,
                std::int64_t high, bool clamps) {
        auto e = line(std::string("settings.") + key, Kind::field, title);
        e.value = std::to_string(setting.get());
        fields[e.id] = [&setting, title, low, high, clamps](const std::string& text) {
            const std::string range = std::to_string(low) + "…" + std::to_string(high);
            auto parsed = parseClamped(text, low, high);
            if (!parsed) {
                refuse(title, "“" + trimmed(text) + "” is not a whole number");
                return false;
            }
            if (parsed->wasClamped && !clamps) {
                refuse(title, "It takes a number in " + range);
                return false;
            }
            setting.set(parsed->value);
            if (parsed->wasClamped) {
                Toast::shared().show(title + " set to " + std::to_string(parsed->value), Toast::Kind::done,
                                     "It stays in " + range);
            }
            return true;
        };
        into.push_back(std::move(e));
    }

    void text(const char* key, const std::string& title, Setting<std::string>& setting) {
        auto e = line(std::string("settings.") + key, Kind::field, title);
        e.value = setting.get();
        fields[e.id] = [&setting](const std::string& typed) {
            setting.set(trimmed(typed));
            return true;
        };
        into.push_back(std::move(e));
    }

    void shown(const char* key, const std::string& title, const std::string& value) {
        into.push_back(line(std::string("settings.") + key, Kind::label, title + "  " + value));
    }
};

void layoutEditor(AppCoordinator& c, std::vector<MenuEntry>& into, Commands& commands) {
    auto& setting = c.settings().menuBarItems;
    auto editor = line("settings.menuBarItems", Kind::submenu, "Reorder Sections");
    editor.children.push_back(
        line("settings.menuBarItems.help", Kind::label, "Settings and Quit always stay at the bottom."));
    const auto items = setting.get();
    for (std::size_t i = 0; i < items.size(); ++i) {
        const auto section = items[i].section;
        const std::string raw(rawValue(section));
        const std::string id = "settings.menuBarItems." + raw;
        auto menu = line(id, Kind::submenu, (items[i].isEnabled ? "" : "(hidden) ") + raw);
        menu.children.push_back(line(id + ".detail", Kind::label, std::string(detail(section))));
        auto show = line(id + ".show", Kind::toggle, "Show in Menu");
        show.isOn = items[i].isEnabled;
        commands[show.id] = [&setting, section] {
            auto next = setting.get();
            for (auto& item : next) {
                if (item.section == section) item.isEnabled = !item.isEnabled;
            }
            setting.set(std::move(next));
        };
        menu.children.push_back(std::move(show));
        auto up = line(id + ".up", Kind::command, "Move Up");
        up.isEnabled = i > 0;
        if (up.isEnabled) commands[up.id] = [&setting, section] { setting.set(moved(setting.get(), section, -1)); };
        menu.children.push_back(std::move(up));
        auto down = line(id + ".down", Kind::command, "Move Down");
        down.isEnabled = i + 1 < items.size();
        if (down.isEnabled) commands[down.id] = [&setting, section] { setting.set(moved(setting.get(), section, 1)); };
        menu.children.push_back(std::move(down));
        editor.children.push_back(std::move(menu));
    }
    auto reset = line("settings.menuBarItems.reset", Kind::command, "Restore the Default Layout");
    commands[reset.id] = [&setting] { setting.set(MenuBarLayout::defaultLayout()); };
    editor.children.push_back(std::move(reset));
    into.push_back(std::move(editor));
}

} // namespace

std::vector<MenuBarItem> moved(std::vector<MenuBarItem> items, MenuBarSection section, int offset) {
    auto at = std::find_if(items.begin(), items.end(), [section](const MenuBarItem& i) { return i.section == section; });
    if (at == items.end()) return items;
    const auto from = static_cast<std::ptrdiff_t>(at - items.begin());
    const auto last = static_cast<std::ptrdiff_t>(items.size()) - 1;
    const auto to = std::clamp<std::ptrdiff_t>(from + offset, 0, last);
    const auto item = *at;
    items.erase(at);
    items.insert(items.begin() + to, item);
    return items;
}

std::optional<Clamped> parseClamped(const std::string& text, std::int64_t low, std::int64_t high) {
    const std::string t = trimmed(text);
    if (t.empty()) return std::nullopt;
    const char* begin = t.data();
    const char* end = t.data() + t.size();
    if (*begin == '+') ++begin;
    std::int64_t value = 0;
    auto [ptr, error] = std::from_chars(begin, end, value);
    if (ptr != end || begin == end) return std::nullopt;
    if (error == std::errc::result_out_of_range) {
        // Far past either end: the nearer end, as for any other number outside the range.
        return Clamped{t[0] == '-' ? low : high, true};
    }
    if (error != std::errc()) return std::nullopt;
    if (value < low) return Clamped{low, true};
    if (value > high) return Clamped{high, true};
    return Clamped{value, false};
}

void build(AppCoordinator& c, std::vector<MenuEntry>& into, Commands& commands, Fields& fields) {
    auto& s = c.settings();
    Builder b{c, into, commands, fields};
    layoutEditor(c, into, commands);
    b.choice<MenuBarIconStyle>(AppSettings::Key::menuBarIconStyle, "Menu Bar Icon", s.menuBarIconStyle);
    b.choice<MenuBarReadout>(AppSettings::Key::menuBarReadout, "Menu Bar Readout", s.menuBarReadout);
    b.choice<AppAppearance>(AppSettings::Key::appearance, "Appearance", s.appearance,
                            [](AppAppearance a) { AppearanceController::apply(a); });
    b.toggle(AppSettings::Key::showConfirmations, "Show Confirmations", s.showConfirmations);
    b.toggle(AppSettings::Key::hasCompletedWelcome, "Welcome Completed", s.hasCompletedWelcome);
    b.toggle(AppSettings::Key::windowSnappingEnabled, "Window Snapping", s.isWindowSnappingEnabled);
    b.toggle(AppSettings::Key::clipboardEnabled, "Clipboard History", s.isClipboardEnabled);
    b.number(AppSettings::Key::clipboardMaximumItems, "Clipboard Items Kept", s.clipboardMaximumItems,
             AppSettings::clipboardMaximumItemsRange[0], AppSettings::clipboardMaximumItemsRange[1], true);
    b.toggle(AppSettings::Key::clipboardClearOnQuit, "Clear Clipboard History on Quit", s.clipboardClearOnQuit);
    b.toggle(AppSettings::Key::networkMonitorEnabled, "Watch Connections", s.isNetworkMonitorEnabled);
    b.choice<NetworkAlertMode>(AppSettings::Key::networkAlertMode, "Network Alerts", s.networkAlertMode);
    b.number(AppSettings::Key::networkSampleSeconds, "Network Sample Seconds", s.networkSampleSeconds,
             AppSettings::networkSampleSecondsRange[0], AppSettings::networkSampleSecondsRange[1], true);
    {
        auto e = line(std::string("settings.") + AppSettings::Key::networkMutedApps, Kind::field,
                      "Muted Programs (paths, comma-separated)");
        const auto& muted = s.networkMutedApps.get();
        for (std::size_t i = 0; i < muted.size(); ++i) e.value += (i ? ", " : "") + muted[i];
        fields[e.id] = [&s](const std::string& typed) {
            std::vector<std::string> paths;
            std::size_t start = 0;
            while (start <= typed.size()) {
                auto comma = typed.find(',', start);
                if (comma == std::string::npos) comma = typed.size();
                auto path = trimmed(typed.substr(start, comma - start));
                if (!path.empty() && std::find(paths.begin(), paths.end(), path) == paths.end()) paths.push_back(path);
                start = comma + 1;
            }
            s.networkMutedApps.set(std::move(paths));
            return true;
        };
        into.push_back(std::move(e));
    }
    b.shown(AppSettings::Key::networkLearningStartedAt, "Learning Started",
            s.networkLearningStartedAt.get() == 0 ? "not yet" : "at " + std::to_string(static_cast<std::int64_t>(s.networkLearningStartedAt.get())));
    b.choice<SelectionMode>(AppSettings::Key::selectionMode, "Selection Bar", s.selectionMode);
    b.toggle(AppSettings::Key::copyOnSelect, "Copy on Select", s.copyOnSelect);
    std::string buttons;
    for (const auto& action : s.selectionActions()) buttons += (buttons.empty() ? "" : ", ") + action.title();
    b.shown(AppSettings::Key::selectionActions, "Selection Buttons", buttons.empty() ? "none" : buttons);
    b.shown(AppSettings::Key::selectionActionsGeneration, "Selection Buttons Generation",
            std::to_string(s.selectionActionsGeneration.get()));
    const auto look = s.selectionAppearance.get();
    b.shown(AppSettings::Key::selectionAppearance, "Selection Bar Look",
            std::string(displayName(look.size)) + ", " + std::string(displayName(look.labels)) + (look.isBold ? ", bold" : ""));
    b.shown(AppSettings::Key::searchEngine, "Search Engine", std::string(s.searchEngine.get().displayName()));
    b.choice<NotepadPresentation>(AppSettings::Key::notepadPresentation, "Notepad Shows As", s.notepadPresentation);
    b.number(AppSettings::Key::vaultLockSeconds, "Vault Locks After (seconds)", s.vaultLockSeconds, 0, 86400, false);
    b.number(AppSettings::Key::vaultClipboardSeconds, "Vault Copies Cleared After (seconds)", s.vaultClipboardSeconds, 0,
             3600, false);
    b.text(AppSettings::Key::serveFolder, "Served Folder", s.serveFolder);
    b.number(AppSettings::Key::servePort, "Serve on Port", s.servePort, 1, 65535, false);
    b.toggle(AppSettings::Key::serveOnNetwork, "Serve to the Network", s.serveOnNetwork);
    b.text(AppSettings::Key::aiProvider, "AI Provider", s.aiProvider);
    // The chosen provider's key, kept in the secret store and never shown.
    if (auto provider = AIProvider::fromRaw(s.aiProvider.get()); provider && provider->needsAPIKey()) {
        const std::string account(provider->keychainAccount());
        Keychain& keychain = c.keychain();
        const bool stored = keychain.get(account).has_value();
        auto key = line("settings.aiKey", Kind::field, std::string(provider->displayName()) + " API Key");
        key.isSecret = true;
        key.value = stored ? "(stored)" : "";
        b.fields[key.id] = [&keychain, &log = c.log(), account](const std::string& typed) {
            const std::string value = trimmed(typed);
            if (value.empty()) {
                keychain.remove(account);
                log.note("selection", "removed the key of " + account);
                return true;
            }
            if (!keychain.set(value, account)) {
                Toast::shared().show("The key could not be saved to the keychain.", Toast::Kind::warning, std::nullopt);
                return false;
            }
            log.note("selection", "stored a key under " + account);
            return true;
        };
        into.push_back(std::move(key));
        if (!stored)
            into.push_back(line("settings.aiKey.none", Kind::label,
                                "No key yet. Ask AI and Translate will say so rather than failing quietly."));
    }
    b.shown(AppSettings::Key::aiModelsByProvider, "AI Models",
            s.aiModels.get().empty() ? "none chosen" : std::to_string(s.aiModels.get().size()) + " chosen");
    b.text(AppSettings::Key::aiBaseURL, "AI Base URL", s.aiBaseURL);
    b.text(AppSettings::Key::translateInto, "Translate Into", s.translateInto);
}

} // namespace tavrick::SettingsMenu
