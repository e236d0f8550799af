#include "NetCore/SeenStore.h"

#include <nlohmann/json.hpp>
#include <openssl/sha.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace tavrick {

namespace {
// Past this many dropped digests the record is compacted in one move.
constexpr std::size_t compactAfter = 1024;
} // namespace

bool SeenStore::Record::contains(std::uint64_t digest) const {
    // A branch-free sweep over fixed blocks lets the compiler compare several digests at once;
    // 4096 digests are a few hundred nanoseconds this way.
    const std::uint64_t* data = digests_.data() + dropped_;
    const std::size_t n = count();
    std::size_t i = 0;
    constexpr std::size_t block = 32;
    for (; i + block <= n; i += block) {
        bool any = false;
        for (std::size_t j = 0; j < block; ++j) any |= data[i + j] == digest;
        if (any) return true;
    }
    for (; i < n; ++i) {
        if (data[i] == digest) return true;
    }
    return false;
}

void SeenStore::Record::append(std::uint64_t digest) {
    digests_.push_back(digest);
}

void SeenStore::Record::dropOldest() {
    ++dropped_;
    if (dropped_ >= compactAfter) {
        digests_.erase(digests_.begin(), digests_.begin() + static_cast<std::ptrdiff_t>(dropped_));
        dropped_ = 0;
    }
}

std::uint64_t SeenStore::digest(std::string_view host) {
    unsigned char hash[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(host.data()), host.size(), hash);
    std::uint64_t value = 0;
    for (int i = 0; i < 8; ++i) value = (value << 8) | hash[i];
    return value;
}

bool SeenStore::knows(std::string_view host, const AppKey& app) const {
    auto it = apps_.find(app.executablePath);
    return it != apps_.end() && it->second.contains(digest(host));
}

bool SeenStore::record(std::string_view host, const AppKey& app, double time) {
    const std::uint64_t value = digest(host);
    Record& entry = apps_[app.executablePath];
    if (entry.contains(value)) {
        entry.lastSeen = time;
        return false;
    }
    entry.append(value);
    if (entry.count() > hostsPerApp) entry.dropOldest();
    entry.lastSeen = time;
    evictApps();
    return true;
}

std::size_t SeenStore::hostCount(const AppKey& app) const {
    auto it = apps_.find(app.executablePath);
    return it == apps_.end() ? 0 : it->second.count();
}

const SeenStore::Record* SeenStore::record(const std::string& executablePath) const {
    auto it = apps_.find(executablePath);
    return it == apps_.end() ? nullptr : &it->second;
}

void SeenStore::evictApps() {
    if (apps_.size() <= appsKept) return;
    std::vector<std::pair<double, std::string>> order;
    order.reserve(apps_.size());
    for (auto& [path, entry] : apps_) order.emplace_back(entry.lastSeen, path);
    std::sort(order.begin(), order.end());
    const std::size_t excess = apps_.size() - appsKept;
    for (std::size_t i = 0; i < excess; ++i) apps_.erase(order[i].second);
}

nlohmann::json SeenStore::toJSON() const {
    nlohmann::json apps = nlohmann::json::object();
    for (auto& [path, entry] : apps_) {
        nlohmann::json lastSeen = entry.lastSeen;
        // Whole seconds are written without a fraction.
        if (std::floor(entry.lastSeen) == entry.lastSeen && std::fabs(entry.lastSeen) < 9.0e15) {
            lastSeen = static_cast<std::int64_t>(entry.lastSeen);
        }
        apps[path] = nlohmann::json{{"hosts", entry.hosts()}, {"lastSeen", std::move(lastSeen)}};
    }
    return nlohmann::json{{"version", version_}, {"apps", std::move(apps)}};
}

SeenStore SeenStore::fromJSON(const nlohmann::json& json) {
    if (!json.is_object()) throw std::runtime_error("the file is not a JSON object");
    SeenStore store;
    const auto& version = json.at("version");
    if (!version.is_number_integer()) throw std::runtime_error("version is not an integer");
    store.version_ = version.get<int>();
    const auto& apps = json.at("apps");
    if (!apps.is_object()) throw std::runtime_error("apps is not an object");
    store.apps_.reserve(apps.size());
    for (auto it = apps.begin(); it != apps.end(); ++it) {
        const auto& value = it.value();
        const auto& hosts = value.at("hosts");
        const auto& lastSeen = value.at("lastSeen");
        if (!hosts.is_array()) throw std::runtime_error("hosts of " + it.key() + " is not an array");
        if (!lastSeen.is_number()) throw std::runtime_error("lastSeen of " + it.key() + " is not a number");
        Record entry;
        entry.digests_.reserve(hosts.size());
        for (const auto& host : hosts) {
            if (!host.is_number_unsigned() && !(host.is_number_integer() && host.get<std::int64_t>() >= 0)) {
                throw std::runtime_error("a host digest of " + it.key() + " is not an unsigned integer");
            }
            entry.digests_.push_back(host.get<std::uint64_t>());
        }
        entry.lastSeen = lastSeen.get<double>();
        store.apps_.emplace(it.key(), std::move(entry));
    }
    return store;
}

bool SeenStore::operator==(const SeenStore& other) const {
    if (version_ != other.version_ || apps_.size() != other.apps_.size()) return false;
    for (auto& [path, entry] : apps_) {
        auto it = other.apps_.find(path);
        if (it == other.apps_.end() || it->second.lastSeen != entry.lastSeen || it->second.hosts() != entry.hosts()) {
            return false;
        }
    }
    return true;
}

} // namespace tavrick
