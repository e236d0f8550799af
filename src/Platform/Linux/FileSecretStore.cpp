#include "Platform/Linux/FileSecretStore.h"

#include "CoreKit/Directories.h"
#include "CoreKit/FileIO.h"
#include "CoreKit/Log.h"
#include "Platform/Linux/Base64.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/stat.h>

namespace tavrick {

namespace {

using json = nlohmann::json;

const char* accessibleName(SecretAccessibility accessibility) {
    return accessibility == SecretAccessibility::afterFirstUnlock ? "afterFirstUnlock" : "whenUnlockedThisDeviceOnly";
}

// The file's items; an empty list when there is no file; nothing when it cannot be read as ours.
std::optional<json> load(const std::filesystem::path& file, SecretStatus& status) {
    int error = 0;
    auto text = FileIO::readAll(file, error);
    if (!text) {
        if (error == ENOENT) return json::array();
        Log::core.error("Secrets: cannot read %s: %s", file.c_str(), std::strerror(error));
        status = SecretStatus::ioFailure;
        return std::nullopt;
    }
    json document = json::parse(*text, nullptr, false);
    if (document.is_discarded() || !document.is_object() || !document.contains("items") ||
        !document["items"].is_array()) {
        Log::core.error("Secrets: %s is not a secrets file this program can read", file.c_str());
        status = SecretStatus::decodeFailure;
        return std::nullopt;
    }
    return document["items"];
}

bool matches(const json& item, const std::string& service, const std::optional<std::string>& account) {
    if (!item.is_object()) return false;
    auto s = item.find("service");
    auto a = item.find("account");
    if (s == item.end() || !s->is_string() || *s != service) return false;
    if (!account) return true;
    return a != item.end() && a->is_string() && *a == *account;
}

SecretStatus save(const std::filesystem::path& file, const json& items) {
    std::error_code error;
    std::filesystem::create_directories(file.parent_path(), error);
    // A file someone loosened is tightened again before it is replaced, since the replacement
    // keeps the old file's mode.
    struct stat existing {};
    if (::stat(file.c_str(), &existing) == 0 && (existing.st_mode & 07777) != 0600) ::chmod(file.c_str(), 0600);
    const json document = {{"format", 1}, {"items", items}};
    if (auto failure = FileIO::writeAtomically(file, document.dump(2) + "\n", 0600)) {
        Log::core.error("Secrets: could not %s %s: %s", failure->step.c_str(), file.c_str(),
                        std::strerror(failure->error));
        return SecretStatus::ioFailure;
    }
    return SecretStatus::success;
}

// Items to change: a file that cannot be read is moved aside first, so a write never loses it.
std::optional<json> loadForWriting(const std::filesystem::path& file, SecretStatus& status) {
    auto items = load(file, status);
    if (items || status != SecretStatus::decodeFailure) return items;
    int error = 0;
    auto aside = FileIO::moveAside(file, static_cast<long long>(std::time(nullptr)), error);
    if (!aside) {
        Log::core.error("Secrets: could not move %s aside: %s", file.c_str(), std::strerror(error));
        return std::nullopt;
    }
    Log::core.error("Secrets: moved the unreadable %s aside to %s", file.c_str(), aside->c_str());
    return json::array();
}

} // namespace

FileSecretStore::FileSecretStore(std::filesystem::path file) : file_(std::move(file)) {}

std::filesystem::path FileSecretStore::defaultFile() {
    return supportDirectory() / "secrets.json";
}

std::optional<std::vector<FileSecretStore::Record>> FileSecretStore::records() const {
    std::lock_guard lock(mutex_);
    SecretStatus status = SecretStatus::success;
    auto items = load(file_, status);
    if (!items) return std::nullopt;
    std::vector<Record> out;
    for (const auto& item : *items) {
        if (!item.is_object()) continue;
        auto service = item.find("service");
        auto account = item.find("account");
        auto data = item.find("data");
        if (service == item.end() || account == item.end() || data == item.end() || !service->is_string() ||
            !account->is_string() || !data->is_string()) {
            continue;
        }
        auto bytes = Base64::decode(data->get_ref<const std::string&>());
        if (!bytes) continue;
        auto accessible = item.find("accessible");
        const bool strict = accessible != item.end() && accessible->is_string() && *accessible == "whenUnlockedThisDeviceOnly";
        out.push_back({service->get<std::string>(), account->get<std::string>(), std::string(bytes->begin(), bytes->end()),
                       strict ? SecretAccessibility::whenUnlockedThisDeviceOnly : SecretAccessibility::afterFirstUnlock});
    }
    return out;
}

SecretStore::Copy FileSecretStore::copy(const std::string& service, const std::string& account) const {
    std::lock_guard lock(mutex_);
    SecretStatus status = SecretStatus::success;
    auto items = load(file_, status);
    if (!items) return {status, std::nullopt};
    for (const auto& item : *items) {
        if (!matches(item, service, account)) continue;
        auto data = item.find("data");
        if (data == item.end() || !data->is_string()) return {SecretStatus::decodeFailure, std::nullopt};
        auto bytes = Base64::decode(data->get_ref<const std::string&>());
        if (!bytes) return {SecretStatus::decodeFailure, std::nullopt};
        return {SecretStatus::success, std::string(bytes->begin(), bytes->end())};
    }
    return {SecretStatus::itemNotFound, std::nullopt};
}

SecretStatus FileSecretStore::add(const std::string& service, const std::string& account, std::string_view data,
                                  SecretAccessibility accessibility) {
    std::lock_guard lock(mutex_);
    SecretStatus status = SecretStatus::success;
    auto items = loadForWriting(file_, status);
    if (!items) return status;
    for (const auto& item : *items) {
        if (matches(item, service, account)) return SecretStatus::duplicateItem;
    }
    items->push_back(
        {{"service", service}, {"account", account}, {"data", Base64::encode(data)}, {"accessible", accessibleName(accessibility)}});
    return save(file_, *items);
}

SecretStatus FileSecretStore::update(const std::string& service, const std::string& account, std::string_view data) {
    std::lock_guard lock(mutex_);
    SecretStatus status = SecretStatus::success;
    auto items = loadForWriting(file_, status);
    if (!items) return status;
    for (auto& item : *items) {
        if (!matches(item, service, account)) continue;
        item["data"] = Base64::encode(data);
        return save(file_, *items);
    }
    return SecretStatus::itemNotFound;
}

SecretStatus FileSecretStore::remove(const std::string& service, const std::optional<std::string>& account) {
    std::lock_guard lock(mutex_);
    SecretStatus status = SecretStatus::success;
    auto items = loadForWriting(file_, status);
    if (!items) return status;
    json kept = json::array();
    for (auto& item : *items) {
        if (!matches(item, service, account)) kept.push_back(item);
    }
    if (kept.size() == items->size()) return SecretStatus::itemNotFound;
    return save(file_, kept);
}

} // namespace tavrick
