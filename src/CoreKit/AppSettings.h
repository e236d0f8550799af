#pragma once

#include "CoreKit/MenuBarLayout.h"
#include "CoreKit/Observable.h"
#include "CoreKit/PreferenceStore.h"
#include "CoreKit/SelectionModel.h"
#include "CoreKit/SettingsTypes.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

class DiagnosticLog;

// One setting: an observable value whose `set` stores it in the defaults at once. Observers are
// told only when the value really changed; the store happens on every set, so a value that was
// clamped on reading goes back to disk in range the next time it is chosen.
template <class T>
class Setting {
public:
    using Observer = typename Observable<T>::Observer;

    Setting(T initial, std::function<void(const T&)> store)
        : value_(std::move(initial)), store_(std::move(store)) {}
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;

    const T& get() const { return value_.get(); }
    operator const T&() const { return value_.get(); }
    Observation observe(Observer observer) { return value_.observe(std::move(observer)); }
    const Observable<T>& observable() const { return value_; }

    // Stores first, so an observer that reads the defaults sees the new value; returns true when
    // observers were told.
    bool set(T value) {
        if (store_) store_(value);
        return value_.set(std::move(value));
    }

private:
    Observable<T> value_;
    std::function<void(const T&)> store_;
};

// A stored value that this build reads but never writes: observable, so a restore that
// changes it is seen, and settable only by the settings themselves.
template <class T>
class StoredValue {
public:
    using Observer = typename Observable<T>::Observer;

    explicit StoredValue(T initial) : value_(std::move(initial)) {}
    StoredValue(const StoredValue&) = delete;
    StoredValue& operator=(const StoredValue&) = delete;

    const T& get() const { return value_.get(); }
    operator const T&() const { return value_.get(); }
    Observation observe(Observer observer) { return value_.observe(std::move(observer)); }

private:
    friend class AppSettings;
    Observable<T> value_;
};

// The observable mirror of the program's preferences. Main thread only: other threads take a
// copy of what they need. Every property is read at construction with its default and its
// clamp, and written back the moment it is set.
class AppSettings {
    // First, so that they exist before any setting that stores through them.
    PreferenceStore& defaults_;
    DiagnosticLog& log_;
    bool isReloading_ = false;

public:
    // The keys of the defaults domain; a backup carries the values under these names.
    struct Key {
        static constexpr const char* menuBarIconStyle = "menuBarIconStyle";
        static constexpr const char* menuBarReadout = "menuBarReadout";
        static constexpr const char* clipboardEnabled = "clipboardEnabled";
        static constexpr const char* clipboardMaximumItems = "clipboardMaximumItems";
        static constexpr const char* clipboardClearOnQuit = "clipboardClearOnQuit";
        static constexpr const char* networkMonitorEnabled = "networkMonitorEnabled";
        static constexpr const char* networkAlertMode = "networkAlertMode";
        static constexpr const char* networkSampleSeconds = "networkSampleSeconds";
        static constexpr const char* networkMutedApps = "networkMutedApps";
        static constexpr const char* networkLearningStartedAt = "networkLearningStartedAt";
        static constexpr const char* appearance = "appearance";
        static constexpr const char* hasCompletedWelcome = "hasCompletedWelcome";
        static constexpr const char* windowSnappingEnabled = "windowSnappingEnabled";
        static constexpr const char* selectionMode = "selectionMode";
        static constexpr const char* selectionActions = "selectionActions";
        static constexpr const char* selectionActionsGeneration = "selectionActionsGeneration";
        static constexpr const char* showConfirmations = "showConfirmations";
        static constexpr const char* copyOnSelect = "copyOnSelect";
        static constexpr const char* serveFolder = "serveFolder";
        static constexpr const char* servePort = "servePort";
        static constexpr const char* serveOnNetwork = "serveOnNetwork";
        static constexpr const char* notepadPresentation = "notepadPresentation";
        static constexpr const char* vaultLockSeconds = "vaultLockSeconds";
        static constexpr const char* vaultClipboardSeconds = "vaultClipboardSeconds";
        static constexpr const char* selectionAppearance = "selectionAppearance";
        static constexpr const char* aiProvider = "aiProvider";
        static constexpr const char* aiModelsByProvider = "aiModelsByProvider";
        static constexpr const char* aiBaseURL = "aiBaseURL";
        static constexpr const char* translateInto = "translateInto";
        static constexpr const char* searchEngine = "searchEngine";
        static constexpr const char* menuBarItems = "menuBarItems";
        // Written by an earlier build; removed at every construction.
        static constexpr const char* fanBoostLevel = "fanBoostLevel";
    };

    // The keys a backup carries, in the order it lists them.
    static constexpr std::array<const char*, 31> backedUpKeys{
        "menuBarIconStyle",      "appearance",
        "hasCompletedWelcome",   "menuBarItems",
        "windowSnappingEnabled", "selectionMode",
        "selectionActions",      "selectionActionsGeneration",
        "selectionAppearance",   "copyOnSelect",
        "notepadPresentation",   "vaultLockSeconds",
        "vaultClipboardSeconds", "serveFolder",
        "servePort",             "serveOnNetwork",
        "showConfirmations",     "aiProvider",
        "aiModelsByProvider",    "aiBaseURL",
        "translateInto",         "searchEngine",
        "menuBarReadout",        "networkMonitorEnabled",
        "networkAlertMode",      "networkSampleSeconds",
        "networkMutedApps",      "networkLearningStartedAt",
        "clipboardEnabled",      "clipboardMaximumItems",
        "clipboardClearOnQuit",
    };

    static constexpr std::int64_t clipboardMaximumItemsRange[2] = {10, 500};
    static constexpr std::int64_t networkSampleSecondsRange[2] = {1, 60};

    // Reads everything from `defaults`, after removing the key of the earlier build. `defaults`
    // and `log` must outlive the settings.
    AppSettings(PreferenceStore& defaults, DiagnosticLog& log);
    AppSettings(const AppSettings&) = delete;
    AppSettings& operator=(const AppSettings&) = delete;

    Setting<MenuBarIconStyle> menuBarIconStyle;
    Setting<MenuBarReadout> menuBarReadout;
    Setting<bool> isClipboardEnabled;
    Setting<std::int64_t> clipboardMaximumItems;
    Setting<bool> clipboardClearOnQuit;
    Setting<bool> isNetworkMonitorEnabled;
    Setting<NetworkAlertMode> networkAlertMode;
    Setting<std::int64_t> networkSampleSeconds;
    Setting<std::vector<std::string>> networkMutedApps;
    // Seconds since 1970.
    Setting<double> networkLearningStartedAt;
    Setting<AppAppearance> appearance;
    Setting<bool> hasCompletedWelcome;
    Setting<bool> isWindowSnappingEnabled;
    Setting<SelectionMode> selectionMode;
    Setting<bool> showConfirmations;
    Setting<bool> copyOnSelect;
    Setting<std::string> serveFolder;
    Setting<std::int64_t> servePort;
    Setting<bool> serveOnNetwork;
    Setting<NotepadPresentation> notepadPresentation;
    Setting<std::int64_t> vaultLockSeconds;
    Setting<std::int64_t> vaultClipboardSeconds;
    Setting<std::string> aiProvider;
    Setting<std::map<std::string, std::string>> aiModels;
    Setting<std::string> aiBaseURL;
    Setting<std::string> translateInto;
    Setting<std::vector<MenuBarItem>> menuBarItems;

    // The selection bar's buttons with the entries this build cannot read, which are written back
    // unchanged whenever the list is stored. An unreadable stored list reads as the built-in list
    // and stays on disk until the user edits the buttons.
    Setting<SelectionActionList> selectionActionStore;
    const std::vector<SelectionAction>& selectionActions() const { return selectionActionStore.get().actions; }
    // Undecodable stored values read as the defaults and are left as they are until set.
    Setting<SelectionAppearance> selectionAppearance;
    Setting<SearchEngine> searchEngine;
    // The generation of built-in selection buttons the stored list has seen; 0 when absent.
    StoredValue<std::int64_t> selectionActionsGeneration;

    // Takes on what the defaults now hold (after a restore): every property is assigned through
    // its setter, which tells observers of a change, while nothing is written.
    void reload();
    bool isReloading() const { return isReloading_; }

    PreferenceStore& defaults() const { return defaults_; }

    // For the launch log: "nothing hidden", or "hidden: " and the hidden sections' raw values
    // joined with ", ".
    static std::string describe(const std::vector<MenuBarItem>& items);

private:
    struct Values;
    AppSettings(PreferenceStore& defaults, DiagnosticLog& log, Values values);
    static Values read(PreferenceStore& defaults, DiagnosticLog& log);
    static SelectionActionList migrateSelectionActions(PreferenceStore& defaults, DiagnosticLog& log,
                                                       std::int64_t& generation);

    template <class T>
    std::function<void(const T&)> storing(const char* key, std::function<PreferenceValue(const T&)> encode);
    void storeMenuBarItems(const std::vector<MenuBarItem>& items);
    void storeSelectionActions(const SelectionActionList& list);
};

} // namespace tavrick
