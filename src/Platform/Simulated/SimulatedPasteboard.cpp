#include "Platform/Simulated/SimulatedPasteboard.h"

#include "CoreKit/FileIO.h"
#include "CoreKit/Log.h"

#include <nlohmann/json.hpp>

#include <cstring>

namespace tavrick {

std::int64_t SimulatedPasteboard::changeCount() const {
    std::lock_guard lock(mutex_);
    return changeCount_;
}

std::vector<std::string> SimulatedPasteboard::types() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    out.reserve(entries_.size());
    for (const auto& [type, data] : entries_) out.push_back(type);
    return out;
}

std::optional<std::string> SimulatedPasteboard::string(const std::string& type) const {
    std::lock_guard lock(mutex_);
    // Too large to read: offered, but never handed over.
    if (oversizedBytes_ && type == plainTextType) return std::nullopt;
    for (const auto& [entryType, data] : entries_) {
        if (entryType == type) return data;
    }
    return std::nullopt;
}

std::int64_t SimulatedPasteboard::clearContents() {
    std::unique_lock lock(mutex_);
    entries_.clear();
    oversizedBytes_.reset();
    ++changeCount_;
    const auto count = changeCount_;
    changed(lock);
    return count;
}

bool SimulatedPasteboard::setString(const std::string& text, const std::string& type) {
    std::unique_lock lock(mutex_);
    if (refusesWrites_) return false;
    std::erase_if(entries_, [&](const auto& entry) { return entry.first == type; });
    if (type == plainTextType) oversizedBytes_.reset();
    entries_.emplace_back(type, text);
    // Adding to what a clear began is part of the same change, as on the real pasteboard.
    changed(lock);
    return true;
}

void SimulatedPasteboard::copy(std::vector<std::pair<std::string, std::string>> entries) {
    std::unique_lock lock(mutex_);
    entries_ = std::move(entries);
    oversizedBytes_.reset();
    ++changeCount_;
    changed(lock);
}

void SimulatedPasteboard::copyOversized(std::int64_t bytes, std::vector<std::string> types) {
    std::unique_lock lock(mutex_);
    entries_ = {{plainTextType, std::string()}};
    for (auto& type : types) entries_.emplace_back(std::move(type), std::string());
    oversizedBytes_ = bytes;
    ++changeCount_;
    changed(lock);
}

std::optional<std::int64_t> SimulatedPasteboard::oversizedTextBytes() const {
    std::lock_guard lock(mutex_);
    return oversizedBytes_;
}

void SimulatedPasteboard::setRefusesWrites(bool refuses) {
    std::lock_guard lock(mutex_);
    refusesWrites_ = refuses;
}

void SimulatedPasteboard::setOnChange(std::function<void(std::int64_t, const std::vector<std::string>&)> onChange) {
    std::lock_guard lock(mutex_);
    onChange_ = std::move(onChange);
}

nlohmann::json SimulatedPasteboard::stateSection() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> types;
    for (const auto& [type, data] : entries_) types.push_back(type);
    return {{"changeCount", changeCount_}, {"types", types}};
}

void SimulatedPasteboard::changed(std::unique_lock<std::mutex>& lock) {
    auto onChange = onChange_;
    const auto count = changeCount_;
    std::vector<std::string> types;
    for (const auto& [type, data] : entries_) types.push_back(type);
    lock.unlock();
    if (onChange) onChange(count, types);
}

} // namespace tavrick
