#include "NetCore/SeenStore.h"

#include <nlohmann/json.hpp>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <simdjson.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <memory>
#include <cmath>
#include <stdexcept>

namespace tavrick {

namespace {
// Past this many dropped digests the record is compacted in one move.
constexpr std::size_t compactAfter = 1024;
} // namespace

namespace {
std::uint64_t slotValue(std::uint64_t digest) {
    return digest == 0 ? 1 : digest;
}
} // namespace

bool SeenStore::Record::contains(std::uint64_t digest) const {
    if (slots_.empty()) return false;
    const std::uint64_t value = slotValue(digest);
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = value & mask;; i = (i + 1) & mask) {
        if (slots_[i] == value) return true;
        if (slots_[i] == 0) return false;
    }
}

void SeenStore::Record::rehash(std::size_t capacity) {
    std::vector<std::uint64_t> old = std::move(slots_);
    slots_.assign(capacity, 0);
    used_ = 0;
    for (std::uint64_t value : old) {
        if (value != 0) indexInsert(value);
    }
}

bool SeenStore::Record::indexInsert(std::uint64_t digest) {
    if ((used_ + 1) * 2 > slots_.size()) rehash(slots_.empty() ? 16 : slots_.size() * 2);
    const std::uint64_t value = slotValue(digest);
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = value & mask;
    while (slots_[i] != 0) {
        if (slots_[i] == value) return false;
        i = (i + 1) & mask;
    }
    slots_[i] = value;
    used_ += 1;
    return true;
}

void SeenStore::Record::indexErase(std::uint64_t digest) {
    if (slots_.empty()) return;
    const std::uint64_t value = slotValue(digest);
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = value & mask;
    while (slots_[i] != value) {
        if (slots_[i] == 0) return;
        i = (i + 1) & mask;
    }
    // Backward-shift deletion: later entries of the same run move up, so no probe ever stops
    // early at the hole.
    std::size_t hole = i;
    for (std::size_t j = (hole + 1) & mask; slots_[j] != 0; j = (j + 1) & mask) {
        const std::size_t home = slots_[j] & mask;
        const bool between = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (!between) {
            slots_[hole] = slots_[j];
            hole = j;
        }
    }
    slots_[hole] = 0;
    used_ -= 1;
}

bool SeenStore::Record::append(std::uint64_t digest) {
    if (!indexInsert(digest)) return false;
    digests_.push_back(digest);
    return true;
}

void SeenStore::Record::dropOldest() {
    indexErase(digests_[dropped_]);
    ++dropped_;
    if (dropped_ >= compactAfter) {
        digests_.erase(digests_.begin(), digests_.begin() + static_cast<std::ptrdiff_t>(dropped_));
        dropped_ = 0;
    }
}

std::uint64_t SeenStore::digest(std::string_view host) {
    // The one-shot call looks the algorithm up on every use; fetched once and with a context
    // per thread, a digest costs a fraction of that.
    static EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    thread_local std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!sha256 || !context || EVP_DigestInit_ex2(context.get(), sha256, nullptr) != 1 ||
        EVP_DigestUpdate(context.get(), host.data(), host.size()) != 1 ||
        EVP_DigestFinal_ex(context.get(), hash, &length) != 1 || length < 8) {
        SHA256(reinterpret_cast<const unsigned char*>(host.data()), host.size(), hash);
    }
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
    if (!entry.append(value)) {
        entry.lastSeen = time;
        return false;
    }
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

namespace {
[[noreturn]] void fail(const std::string& message) {
    throw std::runtime_error(message);
}
} // namespace

// A full file is half a million numbers: simdjson reads it several times faster than a
// document parser that builds a node per number.
SeenStore SeenStore::fromText(std::string_view text) {
    simdjson::dom::parser parser;
    simdjson::padded_string padded(text);
    simdjson::dom::element root;
    if (auto error = parser.parse(padded).get(root)) fail(simdjson::error_message(error));
    return decode(&root);
}

std::optional<SeenStore> SeenStore::fromFile(const std::filesystem::path& path, int& error) {
    // Read as the parser wants it, padded, with no second copy of a file of megabytes.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = errno;
        return std::nullopt;
    }
    struct stat info {};
    if (fstat(fd, &info) != 0) {
        error = errno;
        ::close(fd);
        return std::nullopt;
    }
    simdjson::padded_string padded(static_cast<std::size_t>(info.st_size));
    std::size_t got = 0;
    while (got < padded.size()) {
        const ssize_t n = ::read(fd, padded.data() + got, padded.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = errno;
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    ::close(fd);
    simdjson::dom::parser parser;
    simdjson::dom::element root;
    if (auto failure = parser.parse(padded.data(), got, false).get(root)) fail(simdjson::error_message(failure));
    return decode(&root);
}

SeenStore SeenStore::decode(const void* parsedRoot) {
    const auto& root = *static_cast<const simdjson::dom::element*>(parsedRoot);
    simdjson::dom::object object;
    if (root.get_object().get(object)) fail("the file is not a JSON object");

    SeenStore store;
    simdjson::dom::element version;
    if (object["version"].get(version)) fail("version is missing");
    std::int64_t versionNumber = 0;
    if (!version.is_int64() || version.get_int64().get(versionNumber)) fail("version is not an integer");
    store.version_ = static_cast<int>(versionNumber);

    simdjson::dom::element appsElement;
    if (object["apps"].get(appsElement)) fail("apps is missing");
    simdjson::dom::object apps;
    if (appsElement.get_object().get(apps)) fail("apps is not an object");
    for (auto field : apps) {
        const std::string path(field.key);
        simdjson::dom::object value;
        if (field.value.get_object().get(value)) fail("the record of " + path + " is not an object");
        simdjson::dom::element hostsElement, lastSeenElement;
        if (value["hosts"].get(hostsElement)) fail("hosts of " + path + " is missing");
        if (value["lastSeen"].get(lastSeenElement)) fail("lastSeen of " + path + " is missing");
        simdjson::dom::array hosts;
        if (hostsElement.get_array().get(hosts)) fail("hosts of " + path + " is not an array");
        double lastSeen = 0;
        if (!lastSeenElement.is_number() || lastSeenElement.get_double().get(lastSeen)) {
            fail("lastSeen of " + path + " is not a number");
        }
        Record entry;
        std::size_t capacity = 16;
        while (capacity < hosts.size() * 2 && capacity < hostsPerApp * 2) capacity *= 2;
        entry.rehash(capacity);
        entry.digests_.reserve(std::min(hosts.size(), hostsPerApp));
        for (auto host : hosts) {
            std::uint64_t digest = 0;
            if (!(host.is_uint64() || host.is_int64()) || host.get_uint64().get(digest)) {
                fail("a host digest of " + path + " is not an unsigned integer");
            }
            // A file from elsewhere may repeat a digest or hold more than the bound.
            if (entry.append(digest) && entry.count() > hostsPerApp) entry.dropOldest();
        }
        entry.lastSeen = lastSeen;
        store.apps_.insert_or_assign(path, std::move(entry));
    }
    store.evictApps();
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
