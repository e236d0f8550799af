#include "Platform/Linux/JSONPreferenceStore.h"

#include "CoreKit/AppInfo.h"
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Directories.h"
#include "CoreKit/FileIO.h"
#include "CoreKit/Log.h"
#include "Platform/Linux/Base64.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavrick {

namespace {

using json = nlohmann::json;

constexpr const char* dataMarker = "$data";
constexpr const char* dictionaryMarker = "$dictionary";

// The kernel stamps files from a clock that only moves once a tick, so an edit made within this
// long of the last read may leave every stat field as it was; within it the bytes are compared.
constexpr double racyWindowSeconds = 0.1;

json toJSON(const PreferenceValue& value);

json dictionaryToJSON(const PreferenceValue::Dictionary& dictionary) {
    json object = json::object();
    for (const auto& [key, item] : dictionary) object[key] = toJSON(item);
    return object;
}

json toJSON(const PreferenceValue& value) {
    switch (value.kind()) {
    case PreferenceValue::Kind::boolean: return *value.asBool();
    case PreferenceValue::Kind::integer: return *value.asInteger();
    case PreferenceValue::Kind::real:
        if (!std::isfinite(*value.asReal())) throw std::invalid_argument("a real that is not finite");
        return *value.asReal();
    case PreferenceValue::Kind::string: return *value.asString();
    case PreferenceValue::Kind::data: return json{{dataMarker, Base64::encode(value.asData()->data(), value.asData()->size())}};
    case PreferenceValue::Kind::array: {
        json array = json::array();
        for (const auto& item : *value.asArray()) array.push_back(toJSON(item));
        return array;
    }
    case PreferenceValue::Kind::dictionary: {
        const auto& dictionary = *value.asDictionary();
        json object = dictionaryToJSON(dictionary);
        bool looksLikeMarker =
            dictionary.size() == 1 && (dictionary.count(dataMarker) || dictionary.count(dictionaryMarker));
        if (looksLikeMarker) return json{{dictionaryMarker, std::move(object)}};
        return object;
    }
    }
    throw std::invalid_argument("an unknown kind of value");
}

std::optional<PreferenceValue> fromJSON(const json& value, const std::string& path);

PreferenceValue::Dictionary membersFromJSON(const json& object, const std::string& path) {
    PreferenceValue::Dictionary dictionary;
    for (const auto& [key, item] : object.items()) {
        if (auto converted = fromJSON(item, path + "." + key)) dictionary.emplace(key, std::move(*converted));
    }
    return dictionary;
}

std::optional<PreferenceValue> fromJSON(const json& value, const std::string& path) {
    switch (value.type()) {
    case json::value_t::boolean: return PreferenceValue(value.get<bool>());
    case json::value_t::number_integer: return PreferenceValue(value.get<std::int64_t>());
    case json::value_t::number_unsigned: {
        auto number = value.get<std::uint64_t>();
        if (number <= static_cast<std::uint64_t>(INT64_MAX)) return PreferenceValue(static_cast<std::int64_t>(number));
        // Too large for an integer of the domain: kept as near as a real can.
        return PreferenceValue(static_cast<double>(number));
    }
    case json::value_t::number_float: return PreferenceValue(value.get<double>());
    case json::value_t::string: return PreferenceValue(value.get<std::string>());
    case json::value_t::array: {
        PreferenceValue::Array array;
        std::size_t index = 0;
        for (const auto& item : value) {
            if (auto converted = fromJSON(item, path + "[" + std::to_string(index) + "]")) {
                array.push_back(std::move(*converted));
            }
            ++index;
        }
        return PreferenceValue(std::move(array));
    }
    case json::value_t::object: {
        if (value.size() == 1) {
            auto marker = value.begin();
            if (marker.key() == dataMarker && marker->is_string()) {
                if (auto bytes = Base64::decode(marker->get_ref<const std::string&>())) {
                    return PreferenceValue(std::move(*bytes));
                }
            }
            if (marker.key() == dictionaryMarker && marker->is_object()) {
                return PreferenceValue(membersFromJSON(*marker, path));
            }
        }
        return PreferenceValue(membersFromJSON(value, path));
    }
    default:
        Log::core.notice("Skipped %s in the settings: a %s has no place in a defaults domain", path.c_str(),
                         value.type_name());
        return std::nullopt;
    }
}

double seconds(const timespec& time) { return static_cast<double>(time.tv_sec) + time.tv_nsec / 1e9; }

timespec wallNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

// Holds an advisory lock on a directory, so that a read-modify-write of the domain by two
// processes happens one after the other.
class DirectoryLock {
public:
    explicit DirectoryLock(const std::filesystem::path& directory) {
        fd_ = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd_ >= 0) {
            while (::flock(fd_, LOCK_EX) < 0 && errno == EINTR) {
            }
        }
    }
    ~DirectoryLock() {
        if (fd_ >= 0) ::close(fd_);
    }
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;

private:
    int fd_ = -1;
};

} // namespace

bool JSONPreferenceStore::FileState::operator==(const FileState& other) const {
    if (exists != other.exists) return false;
    if (!exists) return true;
    return device == other.device && inode == other.inode && size == other.size &&
           modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec &&
           changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
}

std::string JSONPreferenceStore::encode(const PreferenceValue::Dictionary& values) {
    json document = dictionaryToJSON(values);
    try {
        return document.dump(2) + "\n";
    } catch (const json::exception& error) {
        throw std::invalid_argument(std::string("text that is not UTF-8 (") + error.what() + ")");
    }
}

std::optional<PreferenceValue::Dictionary> JSONPreferenceStore::decode(std::string_view text, std::string* reason) {
    json document = json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (document.is_discarded()) {
        if (reason) *reason = "it is not JSON";
        return std::nullopt;
    }
    if (!document.is_object()) {
        if (reason) *reason = std::string("it holds a JSON ") + document.type_name() + ", not an object";
        return std::nullopt;
    }
    return membersFromJSON(document, "");
}

JSONPreferenceStore::JSONPreferenceStore(std::filesystem::path file, DiagnosticLog* log)
    : file_(std::move(file)), log_(log) {
    std::lock_guard lock(mutex_);
    DirectoryLock directoryLock(file_.parent_path());
    loadLocked(currentState());
}

std::filesystem::path JSONPreferenceStore::fileForDomain(const std::string& domain) {
    return Directories::current().preferences() / domain / "defaults.json";
}

std::filesystem::path JSONPreferenceStore::applicationFile() { return fileForDomain(AppInfo::bundleIdentifier()); }

JSONPreferenceStore::FileState JSONPreferenceStore::currentState() const {
    struct stat info {};
    FileState state;
    if (::stat(file_.c_str(), &info) != 0) return state;
    state.exists = true;
    state.device = info.st_dev;
    state.inode = info.st_ino;
    state.size = info.st_size;
    state.modified = info.st_mtim;
    state.changed = info.st_ctim;
    return state;
}

void JSONPreferenceStore::refreshLocked() const {
    FileState state = currentState();
    if (!(state == known_)) {
        loadLocked(state);
        return;
    }
    if (!state.exists) return;
    // Same stat as before: the file is unchanged unless it was edited so soon after our read
    // that its time stamp could not move. Only then are the bytes worth comparing.
    if (seconds(knownAt_) - seconds(state.modified) >= racyWindowSeconds) return;
    int error = 0;
    timespec readAt = wallNow();
    auto text = FileIO::readAll(file_, error);
    if (text && *text == knownText_) {
        knownAt_ = readAt;
        return;
    }
    loadLocked(state);
}

void JSONPreferenceStore::loadLocked(const FileState& state) const {
    timespec readAt = wallNow();
    if (!state.exists) {
        values_.clear();
        known_ = state;
        knownText_.clear();
        knownAt_ = readAt;
        unreadable_ = false;
        unsaved_ = false;
        return;
    }
    int error = 0;
    auto text = FileIO::readAll(file_, error);
    if (!text) {
        if (error == ENOENT) {
            loadLocked(FileState{});
            return;
        }
        Log::core.error("Could not read the settings file %s: %s; keeping what was read before and not "
                        "writing over it",
                        file_.c_str(), std::strerror(error));
        // Tried again when the file changes (a change of its permissions included).
        known_ = state;
        unreadable_ = true;
        return;
    }
    unreadable_ = false;
    std::string reason;
    auto values = decode(*text, &reason);
    if (!values) {
        moveAsideLocked(reason);
        return;
    }
    values_ = std::move(*values);
    known_ = currentState();
    knownText_ = std::move(*text);
    knownAt_ = readAt;
    unsaved_ = false;
}

void JSONPreferenceStore::moveAsideLocked(const std::string& reason) const {
    int error = 0;
    auto movedTo = FileIO::moveAside(file_, static_cast<long long>(std::time(nullptr)), error);
    if (!movedTo) {
        Log::core.error("The settings file %s could not be read (%s) and could not be moved aside: %s; using "
                        "defaults without writing over it",
                        file_.c_str(), reason.c_str(), std::strerror(error));
        if (log_) log_->note("settings", "the settings file could not be read or moved aside; defaults are used");
        values_.clear();
        known_ = currentState();
        unreadable_ = true;
        return;
    }
    const auto& target = *movedTo;
    Log::core.error("The settings file %s could not be read (%s); moved it aside to %s and using defaults",
                    file_.c_str(), reason.c_str(), target.filename().c_str());
    if (log_) {
        log_->note("settings", "the settings file could not be read (" + reason + "); moved it aside to " +
                                   target.filename().string() + " and using defaults");
    }
    movedAside_ = target;
    values_.clear();
    known_ = currentState();
    knownText_.clear();
    knownAt_ = wallNow();
    unsaved_ = false;
}

std::optional<std::filesystem::path> JSONPreferenceStore::movedAsideFile() const {
    std::lock_guard lock(mutex_);
    return movedAside_;
}

std::optional<PreferenceValue> JSONPreferenceStore::object(const std::string& key) const {
    std::lock_guard lock(mutex_);
    refreshLocked();
    auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    return found->second;
}

std::vector<std::string> JSONPreferenceStore::allKeys() const {
    std::lock_guard lock(mutex_);
    refreshLocked();
    std::vector<std::string> keys;
    keys.reserve(values_.size());
    for (const auto& entry : values_) keys.push_back(entry.first);
    return keys;
}

PreferenceValue::Dictionary JSONPreferenceStore::dictionaryRepresentation() const {
    std::lock_guard lock(mutex_);
    refreshLocked();
    return values_;
}

bool JSONPreferenceStore::set(const std::string& key, PreferenceValue value) {
    return changeLocked(key, std::move(value));
}

bool JSONPreferenceStore::remove(const std::string& key) { return changeLocked(key, std::nullopt); }

bool JSONPreferenceStore::changeLocked(const std::string& key, std::optional<PreferenceValue> value) {
    std::lock_guard lock(mutex_);
    auto alreadyThere = [&] {
        auto found = values_.find(key);
        bool same = value ? (found != values_.end() && found->second == *value) : found == values_.end();
        return same && !unsaved_ && !unreadable_;
    };
    // A write that would change nothing touches nothing, not even the folder.
    refreshLocked();
    if (alreadyThere()) return true;

    std::error_code error;
    std::filesystem::create_directories(file_.parent_path(), error);
    DirectoryLock directoryLock(file_.parent_path());
    // Another process may have written while the lock was awaited.
    refreshLocked();
    if (alreadyThere()) return true;

    PreferenceValue::Dictionary updated = values_;
    if (value) {
        updated.insert_or_assign(key, std::move(*value));
    } else {
        updated.erase(key);
    }
    std::string text;
    try {
        text = encode(updated);
    } catch (const std::invalid_argument& problem) {
        // Nothing is kept of a value that could never be written.
        Log::core.error("Did not store the setting %s: it holds %s", key.c_str(), problem.what());
        return false;
    }
    values_ = std::move(updated);
    if (unreadable_) {
        Log::core.error("Did not save the setting %s: the settings file %s cannot be read, and writing would "
                        "replace what it holds",
                        key.c_str(), file_.c_str());
        unsaved_ = true;
        return false;
    }
    if (error) {
        Log::core.error("Did not save the setting %s: could not create the settings folder %s: %s", key.c_str(),
                        file_.parent_path().c_str(), error.message().c_str());
        unsaved_ = true;
        return false;
    }
    bool written = writeLocked(text);
    unsaved_ = !written;
    return written;
}

bool JSONPreferenceStore::writeLocked(const std::string& text) {
    // Settings may hold what a person would rather keep to themselves: only they may read it.
    if (auto failure = FileIO::writeAtomically(file_, text, 0600)) {
        Log::core.error("Could not save the settings to %s (%s: %s); the change is kept for this run only",
                        file_.c_str(), failure->step.c_str(), std::strerror(failure->error));
        return false;
    }
    known_ = currentState();
    knownText_ = text;
    knownAt_ = wallNow();
    return true;
}

} // namespace tavrick
