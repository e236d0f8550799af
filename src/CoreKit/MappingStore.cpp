#include "CoreKit/MappingStore.h"

#include "CoreKit/Directories.h"
#include "CoreKit/FileIO.h"
#include "CoreKit/Log.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavrick {

namespace {

std::string quoted(const std::filesystem::path& path) {
    return "“" + path.filename().string() + "”";
}

std::string errnoText(int error) {
    return std::strerror(error);
}

// Reads a whole file, or says why it could not.
std::optional<std::string> readWhole(const std::filesystem::path& path, std::string& failure) {
    int error = 0;
    auto text = FileIO::readAll(path, error);
    if (!text) failure = "could not read " + quoted(path) + ": " + errnoText(error);
    return text;
}

bool writeWhole(const std::filesystem::path& path, const std::string& text, std::string& failure) {
    auto problem = FileIO::writeAtomically(path, text);
    if (!problem) return true;
    failure = "could not " + problem->step + " " + quoted(path) + ": " + errnoText(problem->error);
    return false;
}

bool pathExists(const std::filesystem::path& path) {
    std::error_code error;
    auto status = std::filesystem::symlink_status(path, error);
    // A path that cannot even be looked at is treated as present: the read that follows gives
    // the reason, and nothing is seeded over it.
    if (error && error != std::errc::no_such_file_or_directory && error != std::errc::not_a_directory) return true;
    return std::filesystem::exists(status);
}

} // namespace

MappingStore::MappingStore(std::filesystem::path fileURL, DiagnosticLog& log, Clock& clock, const Bundle& bundle)
    : fileURL_(std::move(fileURL)), log_(log), clock_(clock), bundle_(bundle) {
    load();
}

std::filesystem::path MappingStore::supportDirectory() {
    return tavrick::supportDirectory();
}

std::filesystem::path MappingStore::defaultFileURL() {
    return supportDirectory() / "mappings.json";
}

// ---- Load ----

void MappingStore::seed() {
    mappings_.set(bundledDefaults(bundle_));
}

void MappingStore::load() {
    if (!pathExists(fileURL_)) {
        seed();
        Log::core.info("Seeded %ld example mappings", static_cast<long>(mappings_.get().size()));
        persist();
        return;
    }

    std::string failure;
    auto document = readDocument(fileURL_, failure);

    if (!document) {
        std::string moveFailure;
        if (auto movedTo = moveAside(moveFailure)) {
            Log::core.error("Could not read mappings (%s); moved aside to %s", failure.c_str(),
                            movedTo->filename().c_str());
        } else {
            Log::core.error("Could not read mappings (%s); could not move it aside either (%s)", failure.c_str(),
                            moveFailure.c_str());
            protectsUnreadFile_ = true;
        }
        seed();
        persist();
        return;
    }

    std::vector<Mapping> known;
    known.reserve(document->mappings.size());
    for (auto& stored : document->mappings) {
        if (auto* mapping = std::get_if<Mapping>(&stored.value)) {
            known.push_back(std::move(*mapping));
        } else {
            unreadable_.push_back(std::move(std::get<JSONValue>(stored.value)));
        }
    }
    mappings_.set(std::move(known));
    Log::core.info("Loaded %ld mappings (schema v%ld)", static_cast<long>(mappings_.get().size()),
                   static_cast<long>(document->schemaVersion));
    if (!unreadable_.empty()) {
        Log::core.notice("Kept %ld mappings this build cannot read", static_cast<long>(unreadable_.size()));
        log_.note("mappings",
                  "kept " + std::to_string(unreadable_.size()) + " this build cannot read; they are saved back unchanged");
    }
}

std::optional<StoredMappingDocument> MappingStore::readDocument(const std::filesystem::path& fileURL,
                                                               std::string& failure) {
    auto text = readWhole(fileURL, failure);
    if (!text) return std::nullopt;
    try {
        return StoredMappingDocument::fromJSON(JSONRead::parse(*text));
    } catch (const DecodingError& decodingError) {
        failure = decodingError.what();
    } catch (const nlohmann::json::exception& jsonError) {
        failure = jsonError.what();
    }
    return std::nullopt;
}

std::optional<std::vector<Mapping>> MappingStore::readWithoutChanges(const std::filesystem::path& fileURL,
                                                                     std::string& failure) {
    if (!pathExists(fileURL)) {
        failure = "there is no " + quoted(fileURL) + " yet";
        return std::nullopt;
    }
    auto document = readDocument(fileURL, failure);
    if (!document) return std::nullopt;
    std::vector<Mapping> known;
    for (auto& stored : document->mappings) {
        if (auto* mapping = stored.asKnown()) known.push_back(*mapping);
    }
    return known;
}

std::optional<std::filesystem::path> MappingStore::moveAside(std::string& failure) {
    int error = 0;
    auto target = FileIO::moveAside(fileURL_, static_cast<long long>(std::floor(clock_.now())), error);
    if (!target) failure = errnoText(error);
    return target;
}

// ---- Persist ----

bool MappingStore::persist() {
    const auto& current = mappings_.get();
    if (onChange) onChange(current);

    std::string failure;
    bool written = false;
    std::error_code error;
    if (protectsUnreadFile_) {
        failure = quoted(fileURL_) + " could not be read, and writing would replace what it holds";
    } else if (std::filesystem::create_directories(fileURL_.parent_path(), error); error) {
        failure = "could not create the folder “" + fileURL_.parent_path().string() + "”: " + error.message();
    } else {
        auto list = nlohmann::json::array();
        auto& elements = list.get_ref<nlohmann::json::array_t&>();
        elements.reserve(current.size() + unreadable_.size());
        for (const auto& mapping : current) elements.push_back(mapping.toJSON());
        for (const auto& entry : unreadable_) elements.push_back(entry.toJSON());
        nlohmann::json document = nlohmann::json::object();
        document["mappings"] = std::move(list);
        document["schemaVersion"] = MappingFile::schemaVersion;
        // A file that is a link (kept in a dotfiles folder, say) is saved where it points, so the
        // link survives the rename.
        auto target = fileURL_;
        if (std::filesystem::is_symlink(fileURL_, error)) {
            auto resolved = std::filesystem::weakly_canonical(fileURL_, error);
            if (!error) target = resolved;
        }
        written = writeWhole(target, MappingFile::prettyText(document), failure);
    }
    if (!written) {
        Log::core.error("Could not save mappings: %s", failure.c_str());
        log_.note("mappings", "could not save: " + failure);
    }
    return written;
}

// ---- Changes ----

void MappingStore::add(Mapping mapping) {
    auto list = mappings_.get();
    list.push_back(std::move(mapping));
    mappings_.set(std::move(list));
    persist();
}

void MappingStore::update(const Mapping& mapping) {
    auto list = mappings_.get();
    auto it = std::find_if(list.begin(), list.end(), [&](const Mapping& m) { return m.id == mapping.id; });
    if (it == list.end()) return;
    *it = mapping;
    mappings_.set(std::move(list));
    persist();
}

void MappingStore::remove(const std::unordered_set<UUID>& ids) {
    const auto& current = mappings_.get();
    std::vector<Mapping> removed;
    std::vector<std::size_t> indices;
    std::vector<Mapping> kept;
    kept.reserve(current.size());
    for (std::size_t i = 0; i < current.size(); ++i) {
        if (ids.count(current[i].id)) {
            removed.push_back(current[i]);
            indices.push_back(i);
        } else {
            kept.push_back(current[i]);
        }
    }
    if (removed.empty()) return;
    removedIndices_ = std::move(indices);
    lastRemoved_.set(std::move(removed));
    mappings_.set(std::move(kept));
    persist();
}

std::vector<Mapping> MappingStore::undoRemove() {
    if (lastRemoved_.get().empty()) return {};
    auto restored = lastRemoved_.get();
    auto list = mappings_.get();
    for (std::size_t i = 0; i < restored.size(); ++i) {
        std::size_t index = i < removedIndices_.size() ? removedIndices_[i] : list.size();
        // Indices were taken before anything was removed, so inserting in ascending order puts
        // each back where it was, unless the list has shrunk since.
        list.insert(list.begin() + static_cast<std::ptrdiff_t>(std::min(index, list.size())), restored[i]);
    }
    lastRemoved_.set({});
    removedIndices_.clear();
    mappings_.set(std::move(list));
    persist();
    return restored;
}

void MappingStore::clearRemovedBuffer() {
    lastRemoved_.set({});
    removedIndices_.clear();
}

void MappingStore::setEnabled(bool enabled, const UUID& id) {
    auto list = mappings_.get();
    auto it = std::find_if(list.begin(), list.end(), [&](const Mapping& m) { return m.id == id; });
    if (it == list.end()) return;
    it->isEnabled = enabled;
    mappings_.set(std::move(list));
    persist();
}

bool MappingStore::replaceAll(std::vector<Mapping> mappings) {
    mappings_.set(std::move(mappings));
    unreadable_.clear();
    clearRemovedBuffer();
    return persist();
}

std::vector<Mapping> MappingStore::conflicts(const Trigger& trigger, const std::optional<UUID>& excluding) const {
    std::vector<Mapping> result;
    for (const auto& mapping : mappings_.get()) {
        if (!mapping.isEnabled) continue;
        if (excluding && mapping.id == *excluding) continue;
        if (mapping.trigger == trigger) result.push_back(mapping);
    }
    return result;
}

int MappingStore::restoreExamples() {
    std::unordered_set<UUID> present;
    for (const auto& mapping : mappings_.get()) present.insert(mapping.id);
    std::vector<Mapping> missing;
    for (auto& example : bundledDefaults(bundle_)) {
        if (!present.count(example.id)) missing.push_back(std::move(example));
    }
    if (missing.empty()) return 0;
    auto list = mappings_.get();
    list.insert(list.end(), missing.begin(), missing.end());
    mappings_.set(std::move(list));
    persist();
    return static_cast<int>(missing.size());
}

void MappingStore::publishCurrent() {
    if (onChange) onChange(mappings_.get());
}

// ---- Seed ----

std::vector<Mapping> MappingStore::bundledDefaults(const Bundle& bundle) {
    auto path = bundle.resourcePath("DefaultMappings.json");
    if (!path) {
        Log::core.notice("No bundled DefaultMappings.json; starting empty");
        return {};
    }
    std::string failure;
    auto text = readWhole(*path, failure);
    if (text) {
        try {
            return MappingDocument::fromJSON(JSONRead::parse(*text)).mappings;
        } catch (const DecodingError& error) {
            failure = error.what();
        } catch (const nlohmann::json::exception& error) {
            failure = error.what();
        }
    }
    Log::core.error("Could not read bundled defaults: %s", failure.c_str());
    return {};
}

} // namespace tavrick
