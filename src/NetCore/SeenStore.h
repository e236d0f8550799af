#pragma once

#include "NetCore/Flow.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tavrick {

// The watcher's memory: which apps have been seen and which hosts each reached. Hosts are kept
// only as 64-bit digests, so the file on disk does not tell where anyone has been. Bounded:
// 128 apps of 4096 digests, the least recently active app and the oldest digest going first.
class SeenStore {
public:
    static constexpr int schemaVersion = 1;
    static constexpr std::size_t hostsPerApp = 4096;
    static constexpr std::size_t appsKept = 128;

    class Record {
    public:
        // Digests in the order of first sight.
        std::vector<std::uint64_t> hosts() const { return {digests_.begin() + dropped_, digests_.end()}; }
        std::size_t count() const { return digests_.size() - dropped_; }
        bool contains(std::uint64_t digest) const;
        double lastSeen = 0;

    private:
        friend class SeenStore;
        // False, and nothing added, when the digest is there already.
        bool append(std::uint64_t digest);
        void dropOldest();
        // Dropping from the front moves nothing until enough has gathered, so a full app's
        // record stays cheap.
        std::vector<std::uint64_t> digests_;
        std::size_t dropped_ = 0;
        // The same digests by value, so that a full app answers in constant time: open
        // addressing over the digests' own bits (they are uniform already), linear probing,
        // at most half full. 0 marks a free slot; digest 0 is kept as 1.
        std::vector<std::uint64_t> slots_;
        std::size_t used_ = 0;
        bool indexInsert(std::uint64_t digest);
        void indexErase(std::uint64_t digest);
        void rehash(std::size_t capacity);
    };

    SeenStore() = default;

    // The first 8 bytes of the SHA-256 of the host's UTF-8 bytes, big-endian. No case folding.
    static std::uint64_t digest(std::string_view host);

    bool knowsApp(const AppKey& app) const { return apps_.count(app.executablePath) > 0; }
    bool knows(std::string_view host, const AppKey& app) const;
    // True when the host is new for the app; the app's `lastSeen` moves either way.
    bool record(std::string_view host, const AppKey& app, double time);
    void forget(const AppKey& app) { apps_.erase(app.executablePath); }
    std::size_t appCount() const { return apps_.size(); }
    std::size_t hostCount(const AppKey& app) const;
    const Record* record(const std::string& executablePath) const;

    int version() const { return version_; }
    // The file's form; every key is required on the way in.
    nlohmann::json toJSON() const;
    // Throws `std::runtime_error` (or a JSON error) for anything that is
    // not the file's form.
    static SeenStore fromText(std::string_view text);
    // The same, reading the file straight into the parser's buffer. Nothing when the file
    // cannot be read, with `error` set to the errno.
    static std::optional<SeenStore> fromFile(const std::filesystem::path& path, int& error);

    bool operator==(const SeenStore& other) const;

private:
    void evictApps();
    static SeenStore decode(const void* parsedRoot);
    std::unordered_map<std::string, Record> apps_;
    int version_ = schemaVersion;
};

} // namespace tavrick
