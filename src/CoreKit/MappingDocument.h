#pragma once

#include "CoreKit/JSONValue.h"
#include "CoreKit/Models.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace tavrick {

// The strict form of a mappings file, used for the bundled seed: one bad record fails the whole.
struct MappingDocument {
    std::int64_t schemaVersion = 1;
    std::vector<Mapping> mappings;

    nlohmann::json toJSON() const;
    static MappingDocument fromJSON(const nlohmann::json& json);

    friend bool operator==(const MappingDocument&, const MappingDocument&) = default;
};

// One element of the user's file: a mapping this build can read, or the element kept whole. Both
// are written without a wrapper, so they look the same on disk.
struct StoredMapping {
    std::variant<Mapping, JSONValue> value;

    static StoredMapping known(Mapping mapping) { return StoredMapping{std::move(mapping)}; }
    static StoredMapping unknown(JSONValue element) { return StoredMapping{std::move(element)}; }

    const Mapping* asKnown() const { return std::get_if<Mapping>(&value); }
    const JSONValue* asUnknown() const { return std::get_if<JSONValue>(&value); }

    nlohmann::json toJSON() const;
    // Fails only when the element is not JSON at all.
    static StoredMapping fromJSON(const nlohmann::json& json);

    friend bool operator==(const StoredMapping&, const StoredMapping&) = default;
};

// The tolerant form, used for the user's file.
struct StoredMappingDocument {
    std::int64_t schemaVersion = 1;
    std::vector<StoredMapping> mappings;

    nlohmann::json toJSON() const;
    static StoredMappingDocument fromJSON(const nlohmann::json& json);

    friend bool operator==(const StoredMappingDocument&, const StoredMappingDocument&) = default;
};

namespace MappingFile {

inline constexpr std::int64_t schemaVersion = 1;

// Text a person may open: two-space indentation, keys sorted, a final newline.
std::string prettyText(const nlohmann::json& json);

} // namespace MappingFile

} // namespace tavrick
