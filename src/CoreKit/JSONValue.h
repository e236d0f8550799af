#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace tavrick {

// Why a JSON form could not be read as the type asked for; `what()` is the description that
// logs and error lines show.
class DecodingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Any JSON value, kept whole without interpreting it, so that a record this build cannot read can
// be written back as it was. Numbers are doubles; an object's keys come back sorted.
class JSONValue {
public:
    struct Null {
        friend bool operator==(Null, Null) = default;
    };
    using Array = std::vector<JSONValue>;
    using Object = std::map<std::string, JSONValue>;
    using Storage = std::variant<Null, bool, double, std::string, Array, Object>;

    JSONValue() = default;
    JSONValue(Null) {}
    JSONValue(std::nullptr_t) {}
    JSONValue(bool value) : storage_(value) {}
    JSONValue(double value) : storage_(value) {}
    JSONValue(int value) : storage_(static_cast<double>(value)) {}
    JSONValue(std::string value) : storage_(std::move(value)) {}
    JSONValue(const char* value) : storage_(std::string(value)) {}
    JSONValue(Array value) : storage_(std::move(value)) {}
    JSONValue(Object value) : storage_(std::move(value)) {}

    // Throws DecodingError "Not a JSON value" for what JSON text cannot hold (binary values).
    static JSONValue fromJSON(const nlohmann::json& json);
    // Integral numbers come out as integers, so they are written without a fraction.
    nlohmann::json toJSON() const;

    // Parses JSON text; throws DecodingError with the parser's description.
    static JSONValue parse(std::string_view text);
    // Compact text with sorted keys.
    std::string dump() const;

    const Storage& storage() const { return storage_; }
    bool isNull() const { return std::holds_alternative<Null>(storage_); }
    const bool* asBool() const { return std::get_if<bool>(&storage_); }
    const double* asNumber() const { return std::get_if<double>(&storage_); }
    const std::string* asString() const { return std::get_if<std::string>(&storage_); }
    const Array* asArray() const { return std::get_if<Array>(&storage_); }
    const Object* asObject() const { return std::get_if<Object>(&storage_); }

    friend bool operator==(const JSONValue&, const JSONValue&) = default;

private:
    Storage storage_;
};

// Reading records by shape, with one wording for every failure. Keys are named in the messages;
// values never are, since a record may hold what the user typed.
namespace JSONRead {

// Parses JSON text; throws DecodingError with the parser's description.
nlohmann::json parse(std::string_view text);

// "a number", "text", "an object", ...
std::string_view kindName(const nlohmann::json& value);
// The value itself when it is an object, else DecodingError.
const nlohmann::json& object(const nlohmann::json& value);
// A required key of an object; a missing key fails with "No value for key “id”."
const nlohmann::json& field(const nlohmann::json& object, std::string_view key);
// An optional key: nothing when it is absent or null.
const nlohmann::json* optionalField(const nlohmann::json& object, std::string_view key);

std::string string(const nlohmann::json& value, std::string_view key);
bool boolean(const nlohmann::json& value, std::string_view key);
// A whole number in [minimum, maximum]; a number with a zero fraction counts as whole.
std::int64_t integer(const nlohmann::json& value, std::string_view key, std::int64_t minimum, std::int64_t maximum);
const nlohmann::json& array(const nlohmann::json& value, std::string_view key);

// An enumeration with payload is an object with exactly one recognised key, the case name.
// Returns the index of that case in `cases` and its value (which must be an object). Anything
// else fails with "Invalid number of keys found, expected one."
std::pair<std::size_t, const nlohmann::json*> oneCase(const nlohmann::json& value,
                                                       std::span<const std::string_view> cases);

// "Cannot initialize GestureKind from invalid String value sideways"
DecodingError invalidRawValue(std::string_view type, std::string_view raw);

} // namespace JSONRead

} // namespace tavrick
