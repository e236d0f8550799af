#include "CoreKit/AppSettings.h"

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Log.h"

#include <algorithm>

namespace tavrick {

struct AppSettings::Values {
    MenuBarIconStyle menuBarIconStyle;
    MenuBarReadout menuBarReadout;
    bool isClipboardEnabled;
    std::int64_t clipboardMaximumItems;
    bool clipboardClearOnQuit;
    bool isNetworkMonitorEnabled;
    NetworkAlertMode networkAlertMode;
    std::int64_t networkSampleSeconds;
    std::vector<std::string> networkMutedApps;
    double networkLearningStartedAt;
    AppAppearance appearance;
    bool hasCompletedWelcome;
    bool isWindowSnappingEnabled;
    SelectionMode selectionMode;
    bool showConfirmations;
    bool copyOnSelect;
    std::string serveFolder;
    std::int64_t servePort;
    bool serveOnNetwork;
    NotepadPresentation notepadPresentation;
    std::int64_t vaultLockSeconds;
    std::int64_t vaultClipboardSeconds;
    std::string aiProvider;
    std::map<std::string, std::string> aiModels;
    std::string aiBaseURL;
    std::string translateInto;
    std::vector<MenuBarItem> menuBarItems;
    SelectionActionList selectionActionStore;
    SelectionAppearance selectionAppearance;
    SearchEngine searchEngine;
    std::int64_t selectionActionsGeneration;
};

namespace {

// A stored value of the wrong type is left on disk and read as the default; the developer log
// says so, since a setting that seems to ignore its file is otherwise hard to explain.
void reportIgnored(const char* key, const PreferenceValue& value, const char* expected) {
    Log::core.notice("Setting %s is stored as %s, not %s; using its default", key, kindName(value.kind()),
                     expected);
}

bool readBool(const PreferenceStore& defaults, const char* key, bool fallback) {
    auto value = defaults.object(key);
    if (!value) return fallback;
    if (auto flag = value->asBool()) return *flag;
    reportIgnored(key, *value, "bool");
    return fallback;
}

std::int64_t readInteger(const PreferenceStore& defaults, const char* key, std::int64_t fallback) {
    if (auto integer = defaults.integer(key)) return *integer;
    if (auto value = defaults.object(key)) reportIgnored(key, *value, "integer");
    return fallback;
}

std::int64_t readClamped(const PreferenceStore& defaults, const char* key, std::int64_t fallback,
                         const std::int64_t (&range)[2]) {
    if (auto integer = defaults.integer(key)) return std::clamp(*integer, range[0], range[1]);
    if (auto value = defaults.object(key)) reportIgnored(key, *value, "integer");
    return fallback;
}

double readReal(const PreferenceStore& defaults, const char* key, double fallback) {
    if (auto real = defaults.real(key)) return *real;
    if (auto value = defaults.object(key)) reportIgnored(key, *value, "real");
    return fallback;
}

std::string readString(const PreferenceStore& defaults, const char* key, const std::string& fallback) {
    auto value = defaults.object(key);
    if (!value) return fallback;
    if (auto text = value->asString()) return *text;
    reportIgnored(key, *value, "string");
    return fallback;
}

template <class E>
E readEnum(const PreferenceStore& defaults, const char* key, E fallback) {
    auto value = defaults.object(key);
    if (!value) return fallback;
    if (auto text = value->asString()) return fromRaw<E>(*text).value_or(fallback);
    reportIgnored(key, *value, "string");
    return fallback;
}

// An array with anything but text in it reads as empty, as a whole.
std::vector<std::string> readStringArray(const PreferenceStore& defaults, const char* key) {
    auto value = defaults.object(key);
    if (!value) return {};
    std::vector<std::string> result;
    if (auto array = value->asArray()) {
        bool allText = std::all_of(array->begin(), array->end(), [](const auto& item) { return item.asString(); });
        if (allText) {
            for (const auto& item : *array) result.push_back(*item.asString());
            return result;
        }
    }
    reportIgnored(key, *value, "array of strings");
    return {};
}

// A dictionary with a value that is not text reads as empty, as a whole.
std::map<std::string, std::string> readStringDictionary(const PreferenceStore& defaults, const char* key) {
    auto value = defaults.object(key);
    if (!value) return {};
    if (auto dictionary = value->asDictionary()) {
        std::map<std::string, std::string> result;
        bool allText = true;
        for (const auto& [name, item] : *dictionary) {
            if (auto text = item.asString()) {
                result.emplace(name, *text);
            } else {
                allText = false;
                break;
            }
        }
        if (allText) return result;
    }
    reportIgnored(key, *value, "dictionary of strings");
    return {};
}

std::vector<MenuBarItem> readMenuBarItems(const PreferenceStore& defaults, const char* key) {
    auto value = defaults.object(key);
    if (!value) return MenuBarLayout::defaultLayout();
    if (auto bytes = value->asData()) {
        if (auto items = MenuBarLayout::decode(*bytes)) return *items;
        Log::core.notice("The stored menu layout (%zu bytes) could not be read; using the default layout",
                         bytes->size());
        return MenuBarLayout::defaultLayout();
    }
    reportIgnored(key, *value, "data");
    return MenuBarLayout::defaultLayout();
}

// A JSON-data setting: the bytes decoded by `decode`, or the default when absent or unreadable.
template <class T>
T readJSONData(const PreferenceStore& defaults, const char* key, const T& fallback,
               const std::function<T(std::string_view)>& decode) {
    auto value = defaults.object(key);
    if (!value) return fallback;
    if (auto bytes = value->asData()) {
        try {
            return decode(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
        } catch (const std::exception& error) {
            Log::core.notice("The stored %s (%zu bytes) could not be read (%s); using its default", key, bytes->size(),
                             error.what());
            return fallback;
        }
    }
    reportIgnored(key, *value, "data");
    return fallback;
}

PreferenceValue encodeStrings(const std::vector<std::string>& texts) {
    PreferenceValue::Array array;
    array.reserve(texts.size());
    for (const auto& text : texts) array.emplace_back(text);
    return array;
}

PreferenceValue encodeStringDictionary(const std::map<std::string, std::string>& texts) {
    PreferenceValue::Dictionary dictionary;
    for (const auto& [name, text] : texts) dictionary.emplace(name, text);
    return dictionary;
}

template <class E>
PreferenceValue encodeEnum(const E& value) {
    return std::string(rawValue(value));
}

PreferenceValue encodeBool(const bool& value) { return value; }
PreferenceValue encodeInteger(const std::int64_t& value) { return value; }
PreferenceValue encodeReal(const double& value) { return value; }
PreferenceValue encodeString(const std::string& value) { return value; }

} // namespace

SelectionActionList AppSettings::migrateSelectionActions(PreferenceStore& defaults, DiagnosticLog& log,
                                                         std::int64_t& generation) {
    generation = defaults.integer(Key::selectionActionsGeneration).value_or(0);
    SelectionActionList list(SelectionAction::defaults());
    bool readable = true;
    bool stored = false;
    if (auto value = defaults.object(Key::selectionActions)) {
        stored = true;
        const auto* bytes = value->asData();
        std::optional<SelectionActionList> decoded;
        if (bytes) decoded = SelectionActionList::decode(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
        if (decoded) {
            list = std::move(*decoded);
            list.actions = SelectionAction::addingBuiltIns(std::move(list.actions), generation);
        } else {
            // The built-in list stands in, and the stored bytes stay as they are for a build that
            // can read them.
            readable = false;
            Log::core.notice("The stored selection buttons could not be read; showing the built-in list");
        }
    }
    if (!list.unknown.empty()) {
        Log::core.notice("Kept %ld selection buttons this build cannot read", static_cast<long>(list.unknownCount()));
        log.note("selection", "kept " + std::to_string(list.unknownCount()) +
                                  " buttons this build cannot read; they are saved back unchanged");
    }
    if (generation < SelectionAction::currentGeneration && readable) {
        if (stored) {
            if (auto bytes = list.encoded()) defaults.set(Key::selectionActions, PreferenceValue::data(*bytes));
        }
        defaults.set(Key::selectionActionsGeneration, SelectionAction::currentGeneration);
        generation = SelectionAction::currentGeneration;
    }
    return list;
}

AppSettings::Values AppSettings::read(PreferenceStore& defaults, DiagnosticLog& log) {
    // Removed whether or not anything else changes; checked first so that a domain without it
    // sees no write at all.
    if (defaults.object(Key::fanBoostLevel)) {
        defaults.remove(Key::fanBoostLevel);
        Log::core.info("Removed the setting %s of an earlier build", Key::fanBoostLevel);
    }

    Values values{
        .menuBarIconStyle = readEnum(defaults, Key::menuBarIconStyle, MenuBarIconStyle::gestures),
        .menuBarReadout = readEnum(defaults, Key::menuBarReadout, MenuBarReadout::off),
        .isClipboardEnabled = readBool(defaults, Key::clipboardEnabled, true),
        .clipboardMaximumItems =
            readClamped(defaults, Key::clipboardMaximumItems, 100, clipboardMaximumItemsRange),
        .clipboardClearOnQuit = readBool(defaults, Key::clipboardClearOnQuit, false),
        .isNetworkMonitorEnabled = readBool(defaults, Key::networkMonitorEnabled, false),
        .networkAlertMode = readEnum(defaults, Key::networkAlertMode, NetworkAlertMode::newAppsAndHosts),
        .networkSampleSeconds = readClamped(defaults, Key::networkSampleSeconds, 3, networkSampleSecondsRange),
        .networkMutedApps = readStringArray(defaults, Key::networkMutedApps),
        .networkLearningStartedAt = readReal(defaults, Key::networkLearningStartedAt, 0),
        .appearance = readEnum(defaults, Key::appearance, AppAppearance::system),
        .hasCompletedWelcome = readBool(defaults, Key::hasCompletedWelcome, false),
        .isWindowSnappingEnabled = readBool(defaults, Key::windowSnappingEnabled, true),
        .selectionMode = readEnum(defaults, Key::selectionMode, SelectionMode::off),
        .showConfirmations = readBool(defaults, Key::showConfirmations, true),
        .copyOnSelect = readBool(defaults, Key::copyOnSelect, false),
        .serveFolder = readString(defaults, Key::serveFolder, ""),
        .servePort = readInteger(defaults, Key::servePort, 8000),
        .serveOnNetwork = readBool(defaults, Key::serveOnNetwork, false),
        .notepadPresentation = readEnum(defaults, Key::notepadPresentation, NotepadPresentation::underMenuBar),
        .vaultLockSeconds = readInteger(defaults, Key::vaultLockSeconds, 300),
        .vaultClipboardSeconds = readInteger(defaults, Key::vaultClipboardSeconds, 45),
        .aiProvider = readString(defaults, Key::aiProvider, "anthropic"),
        .aiModels = readStringDictionary(defaults, Key::aiModelsByProvider),
        .aiBaseURL = readString(defaults, Key::aiBaseURL, ""),
        .translateInto = readString(defaults, Key::translateInto, "English"),
        .menuBarItems = readMenuBarItems(defaults, Key::menuBarItems),
        .selectionActionStore = {},
        .selectionAppearance = readJSONData<SelectionAppearance>(
            defaults, Key::selectionAppearance, SelectionAppearance{},
            [](std::string_view bytes) { return SelectionAppearance::decode(bytes); }),
        .searchEngine = readJSONData<SearchEngine>(
            defaults, Key::searchEngine, SearchEngine{},
            [](std::string_view bytes) { return SearchEngine::fromJSON(JSONValue::parse(bytes)); }),
        .selectionActionsGeneration = 0,
    };
    values.selectionActionStore = migrateSelectionActions(defaults, log, values.selectionActionsGeneration);
    return values;
}

template <class T>
std::function<void(const T&)> AppSettings::storing(const char* key,
                                                   std::function<PreferenceValue(const T&)> encode) {
    return [this, key, encode = std::move(encode)](const T& value) {
        if (isReloading_) return;
        defaults_.set(key, encode(value));
    };
}

AppSettings::AppSettings(PreferenceStore& defaults, DiagnosticLog& log)
    : AppSettings(defaults, log, read(defaults, log)) {}

AppSettings::AppSettings(PreferenceStore& defaults, DiagnosticLog& log, Values values)
    : defaults_(defaults),
      log_(log),
      menuBarIconStyle(values.menuBarIconStyle, storing<MenuBarIconStyle>(Key::menuBarIconStyle, encodeEnum<MenuBarIconStyle>)),
      menuBarReadout(values.menuBarReadout, storing<MenuBarReadout>(Key::menuBarReadout, encodeEnum<MenuBarReadout>)),
      isClipboardEnabled(values.isClipboardEnabled, storing<bool>(Key::clipboardEnabled, encodeBool)),
      clipboardMaximumItems(values.clipboardMaximumItems,
                            storing<std::int64_t>(Key::clipboardMaximumItems, encodeInteger)),
      clipboardClearOnQuit(values.clipboardClearOnQuit, storing<bool>(Key::clipboardClearOnQuit, encodeBool)),
      isNetworkMonitorEnabled(values.isNetworkMonitorEnabled, storing<bool>(Key::networkMonitorEnabled, encodeBool)),
      networkAlertMode(values.networkAlertMode,
                       storing<NetworkAlertMode>(Key::networkAlertMode, encodeEnum<NetworkAlertMode>)),
      networkSampleSeconds(values.networkSampleSeconds,
                           storing<std::int64_t>(Key::networkSampleSeconds, encodeInteger)),
      networkMutedApps(std::move(values.networkMutedApps),
                       storing<std::vector<std::string>>(Key::networkMutedApps, encodeStrings)),
      networkLearningStartedAt(values.networkLearningStartedAt,
                               storing<double>(Key::networkLearningStartedAt, encodeReal)),
      appearance(values.appearance, storing<AppAppearance>(Key::appearance, encodeEnum<AppAppearance>)),
      hasCompletedWelcome(values.hasCompletedWelcome, storing<bool>(Key::hasCompletedWelcome, encodeBool)),
      isWindowSnappingEnabled(values.isWindowSnappingEnabled, storing<bool>(Key::windowSnappingEnabled, encodeBool)),
      selectionMode(values.selectionMode, storing<SelectionMode>(Key::selectionMode, encodeEnum<SelectionMode>)),
      showConfirmations(values.showConfirmations, storing<bool>(Key::showConfirmations, encodeBool)),
      copyOnSelect(values.copyOnSelect, storing<bool>(Key::copyOnSelect, encodeBool)),
      serveFolder(std::move(values.serveFolder), storing<std::string>(Key::serveFolder, encodeString)),
      servePort(values.servePort, storing<std::int64_t>(Key::servePort, encodeInteger)),
      serveOnNetwork(values.serveOnNetwork, storing<bool>(Key::serveOnNetwork, encodeBool)),
      notepadPresentation(values.notepadPresentation,
                          storing<NotepadPresentation>(Key::notepadPresentation, encodeEnum<NotepadPresentation>)),
      vaultLockSeconds(values.vaultLockSeconds, storing<std::int64_t>(Key::vaultLockSeconds, encodeInteger)),
      vaultClipboardSeconds(values.vaultClipboardSeconds,
                            storing<std::int64_t>(Key::vaultClipboardSeconds, encodeInteger)),
      aiProvider(std::move(values.aiProvider), storing<std::string>(Key::aiProvider, encodeString)),
      aiModels(std::move(values.aiModels),
               storing<std::map<std::string, std::string>>(Key::aiModelsByProvider, encodeStringDictionary)),
      aiBaseURL(std::move(values.aiBaseURL), storing<std::string>(Key::aiBaseURL, encodeString)),
      translateInto(std::move(values.translateInto), storing<std::string>(Key::translateInto, encodeString)),
      menuBarItems(std::move(values.menuBarItems),
                   [this](const std::vector<MenuBarItem>& items) { storeMenuBarItems(items); }),
      selectionActionStore(std::move(values.selectionActionStore),
                           [this](const SelectionActionList& list) { storeSelectionActions(list); }),
      selectionAppearance(values.selectionAppearance,
                          storing<SelectionAppearance>(Key::selectionAppearance,
                                                       [](const SelectionAppearance& appearance) {
                                                           return PreferenceValue::data(appearance.encoded());
                                                       })),
      searchEngine(std::move(values.searchEngine),
                   storing<SearchEngine>(Key::searchEngine,
                                         [](const SearchEngine& engine) {
                                             return PreferenceValue::data(engine.toJSON().dump());
                                         })),
      selectionActionsGeneration(values.selectionActionsGeneration) {}

void AppSettings::storeMenuBarItems(const std::vector<MenuBarItem>& items) {
    if (isReloading_) return;
    std::string bytes;
    try {
        bytes = MenuBarLayout::encode(items);
    } catch (const std::exception& error) {
        Log::core.error("Could not encode the menu layout: %s", error.what());
        log_.note("menu", "could not save the layout");
        return;
    }
    if (!defaults_.set(Key::menuBarItems, PreferenceValue::data(bytes))) {
        log_.note("menu", "could not save the layout");
        return;
    }
    log_.note("menu", "layout saved — " + describe(items));
}

void AppSettings::storeSelectionActions(const SelectionActionList& list) {
    if (isReloading_) return;
    auto bytes = list.encoded();
    if (!bytes) {
        log_.note("selection", "could not save the buttons");
        return;
    }
    defaults_.set(Key::selectionActions, PreferenceValue::data(*bytes));
}

void AppSettings::reload() {
    // Cleared again however the assignments end, so a throwing observer cannot leave the
    // settings unable to store.
    struct Reloading {
        bool& flag;
        explicit Reloading(bool& f) : flag(f) { flag = true; }
        ~Reloading() { flag = false; }
    } reloading(isReloading_);

    Values values = read(defaults_, log_);
    menuBarIconStyle.set(values.menuBarIconStyle);
    menuBarReadout.set(values.menuBarReadout);
    isClipboardEnabled.set(values.isClipboardEnabled);
    clipboardMaximumItems.set(values.clipboardMaximumItems);
    clipboardClearOnQuit.set(values.clipboardClearOnQuit);
    isNetworkMonitorEnabled.set(values.isNetworkMonitorEnabled);
    networkAlertMode.set(values.networkAlertMode);
    networkSampleSeconds.set(values.networkSampleSeconds);
    networkMutedApps.set(std::move(values.networkMutedApps));
    networkLearningStartedAt.set(values.networkLearningStartedAt);
    appearance.set(values.appearance);
    hasCompletedWelcome.set(values.hasCompletedWelcome);
    isWindowSnappingEnabled.set(values.isWindowSnappingEnabled);
    selectionMode.set(values.selectionMode);
    showConfirmations.set(values.showConfirmations);
    copyOnSelect.set(values.copyOnSelect);
    serveFolder.set(std::move(values.serveFolder));
    servePort.set(values.servePort);
    serveOnNetwork.set(values.serveOnNetwork);
    notepadPresentation.set(values.notepadPresentation);
    vaultLockSeconds.set(values.vaultLockSeconds);
    vaultClipboardSeconds.set(values.vaultClipboardSeconds);
    aiProvider.set(std::move(values.aiProvider));
    aiModels.set(std::move(values.aiModels));
    aiBaseURL.set(std::move(values.aiBaseURL));
    translateInto.set(std::move(values.translateInto));
    menuBarItems.set(std::move(values.menuBarItems));
    selectionActionStore.set(std::move(values.selectionActionStore));
    selectionAppearance.set(values.selectionAppearance);
    searchEngine.set(std::move(values.searchEngine));
    selectionActionsGeneration.value_.set(values.selectionActionsGeneration);
}

std::string AppSettings::describe(const std::vector<MenuBarItem>& items) {
    std::string hidden;
    for (const auto& item : items) {
        if (item.isEnabled) continue;
        if (!hidden.empty()) hidden += ", ";
        hidden += rawValue(item.section);
    }
    return hidden.empty() ? "nothing hidden" : "hidden: " + hidden;
}

} // namespace tavrick
