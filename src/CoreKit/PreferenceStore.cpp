#include "CoreKit/PreferenceStore.h"

#include <cmath>
#include <cstdio>

namespace tavrick {

PreferenceValue PreferenceValue::data(std::string_view bytes) {
    return PreferenceValue(Data(bytes.begin(), bytes.end()));
}

std::string PreferenceValue::summary() const {
    switch (kind()) {
    case Kind::boolean: return *asBool() ? "true" : "false";
    case Kind::integer: return std::to_string(*asInteger());
    case Kind::real: {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%.17g", *asReal());
        return buffer;
    }
    case Kind::string: return "text of " + std::to_string(asString()->size()) + " bytes";
    case Kind::data: return "data of " + std::to_string(asData()->size()) + " bytes";
    case Kind::array: return "array of " + std::to_string(asArray()->size());
    case Kind::dictionary: return "dictionary of " + std::to_string(asDictionary()->size());
    }
    return "?";
}

const char* kindName(PreferenceValue::Kind kind) {
    switch (kind) {
    case PreferenceValue::Kind::boolean: return "bool";
    case PreferenceValue::Kind::integer: return "integer";
    case PreferenceValue::Kind::real: return "real";
    case PreferenceValue::Kind::string: return "string";
    case PreferenceValue::Kind::data: return "data";
    case PreferenceValue::Kind::array: return "array";
    case PreferenceValue::Kind::dictionary: return "dictionary";
    }
    return "?";
}

PreferenceValue::Dictionary PreferenceStore::dictionaryRepresentation() const {
    PreferenceValue::Dictionary result;
    for (const auto& key : allKeys()) {
        if (auto value = object(key)) result.emplace(key, std::move(*value));
    }
    return result;
}

std::optional<bool> PreferenceStore::boolean(const std::string& key) const {
    auto value = object(key);
    if (!value || !value->asBool()) return std::nullopt;
    return *value->asBool();
}

std::optional<std::int64_t> PreferenceStore::integer(const std::string& key) const {
    auto value = object(key);
    if (!value) return std::nullopt;
    if (auto integer = value->asInteger()) return *integer;
    if (auto real = value->asReal()) {
        // 2^63 itself is representable as a double but not as an int64, hence the strict bound.
        constexpr double limit = 9223372036854775808.0;
        if (std::isfinite(*real) && std::trunc(*real) == *real && *real >= -limit && *real < limit) {
            return static_cast<std::int64_t>(*real);
        }
    }
    return std::nullopt;
}

std::optional<double> PreferenceStore::real(const std::string& key) const {
    auto value = object(key);
    if (!value) return std::nullopt;
    if (auto real = value->asReal()) return *real;
    if (auto integer = value->asInteger()) return static_cast<double>(*integer);
    return std::nullopt;
}

std::optional<std::string> PreferenceStore::string(const std::string& key) const {
    auto value = object(key);
    if (!value || !value->asString()) return std::nullopt;
    return *value->asString();
}

std::optional<PreferenceValue::Data> PreferenceStore::data(const std::string& key) const {
    auto value = object(key);
    if (!value || !value->asData()) return std::nullopt;
    return *value->asData();
}

std::optional<PreferenceValue::Array> PreferenceStore::array(const std::string& key) const {
    auto value = object(key);
    if (!value || !value->asArray()) return std::nullopt;
    return *value->asArray();
}

std::optional<PreferenceValue::Dictionary> PreferenceStore::dictionary(const std::string& key) const {
    auto value = object(key);
    if (!value || !value->asDictionary()) return std::nullopt;
    return *value->asDictionary();
}

std::optional<PreferenceValue> InMemoryPreferenceStore::object(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    return found->second;
}

bool InMemoryPreferenceStore::set(const std::string& key, PreferenceValue value) {
    std::lock_guard lock(mutex_);
    ++writes_;
    values_.insert_or_assign(key, std::move(value));
    return !failsWrites_;
}

bool InMemoryPreferenceStore::remove(const std::string& key) {
    std::lock_guard lock(mutex_);
    ++writes_;
    values_.erase(key);
    return !failsWrites_;
}

std::vector<std::string> InMemoryPreferenceStore::allKeys() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> keys;
    keys.reserve(values_.size());
    for (const auto& entry : values_) keys.push_back(entry.first);
    return keys;
}

PreferenceValue::Dictionary InMemoryPreferenceStore::dictionaryRepresentation() const {
    std::lock_guard lock(mutex_);
    return values_;
}

std::size_t InMemoryPreferenceStore::writeCount() const {
    std::lock_guard lock(mutex_);
    return writes_;
}

void InMemoryPreferenceStore::setFailsWrites(bool fails) {
    std::lock_guard lock(mutex_);
    failsWrites_ = fails;
}

} // namespace tavrick
