#include "CoreKit/JSONValue.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>

namespace tavrick {

namespace {

// Deeper nesting than this is not a record anyone wrote; refusing it keeps the recursion below
// (and in the value's own destructor) far from the stack's end.
constexpr int maximumDepth = 512;

JSONValue convert(const nlohmann::json& json, int depth) {
    if (depth > maximumDepth) throw DecodingError("Not a JSON value");
    switch (json.type()) {
    case nlohmann::json::value_t::null:
        return JSONValue(nullptr);
    case nlohmann::json::value_t::boolean:
        return JSONValue(json.get<bool>());
    case nlohmann::json::value_t::number_integer:
        return JSONValue(static_cast<double>(json.get<std::int64_t>()));
    case nlohmann::json::value_t::number_unsigned:
        return JSONValue(static_cast<double>(json.get<std::uint64_t>()));
    case nlohmann::json::value_t::number_float:
        return JSONValue(json.get<double>());
    case nlohmann::json::value_t::string:
        return JSONValue(json.get_ref<const std::string&>());
    case nlohmann::json::value_t::array: {
        JSONValue::Array array;
        array.reserve(json.size());
        for (const auto& element : json) array.push_back(convert(element, depth + 1));
        return JSONValue(std::move(array));
    }
    case nlohmann::json::value_t::object: {
        JSONValue::Object object;
        for (const auto& [key, element] : json.items()) object.emplace(key, convert(element, depth + 1));
        return JSONValue(std::move(object));
    }
    default:
        throw DecodingError("Not a JSON value");
    }
}

nlohmann::json number(double value) {
    // Whole numbers go out as integers so that 49 is written as 49, not 49.0.
    if (std::isfinite(value) && std::trunc(value) == value) {
        if (value >= -9223372036854775808.0 && value < 9223372036854775808.0) {
            return nlohmann::json(static_cast<std::int64_t>(value));
        }
        if (value >= 0 && value < 18446744073709551616.0) return nlohmann::json(static_cast<std::uint64_t>(value));
    }
    return nlohmann::json(value);
}

// nlohmann prefixes its messages with an internal tag ("[json.exception.parse_error.101] ");
// the rest is the description a person can use.
std::string describe(const nlohmann::json::exception& error) {
    std::string text = error.what();
    if (!text.empty() && text.front() == '[') {
        auto end = text.find("] ");
        if (end != std::string::npos) text.erase(0, end + 2);
    }
    return text;
}

} // namespace

JSONValue JSONValue::fromJSON(const nlohmann::json& json) {
    return convert(json, 0);
}

nlohmann::json JSONValue::toJSON() const {
    return std::visit(
        [](const auto& value) -> nlohmann::json {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, Null>) {
                return nlohmann::json(nullptr);
            } else if constexpr (std::is_same_v<T, double>) {
                return number(value);
            } else if constexpr (std::is_same_v<T, Array>) {
                auto array = nlohmann::json::array();
                for (const auto& element : value) array.push_back(element.toJSON());
                return array;
            } else if constexpr (std::is_same_v<T, Object>) {
                auto object = nlohmann::json::object();
                for (const auto& [key, element] : value) object.emplace(key, element.toJSON());
                return object;
            } else {
                return nlohmann::json(value);
            }
        },
        storage_);
}

JSONValue JSONValue::parse(std::string_view text) {
    return fromJSON(JSONRead::parse(text));
}

std::string JSONValue::dump() const {
    return toJSON().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

namespace JSONRead {

nlohmann::json parse(std::string_view text) {
    try {
        return nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception& error) {
        throw DecodingError(describe(error));
    }
}

std::string_view kindName(const nlohmann::json& value) {
    switch (value.type()) {
    case nlohmann::json::value_t::null:
        return "null";
    case nlohmann::json::value_t::boolean:
        return "a bool";
    case nlohmann::json::value_t::number_integer:
    case nlohmann::json::value_t::number_unsigned:
    case nlohmann::json::value_t::number_float:
        return "a number";
    case nlohmann::json::value_t::string:
        return "text";
    case nlohmann::json::value_t::array:
        return "an array";
    case nlohmann::json::value_t::object:
        return "an object";
    default:
        return "something else";
    }
}

namespace {
DecodingError typeMismatch(std::string_view expected, std::string_view key, const nlohmann::json& found) {
    std::string text = "Expected ";
    text += expected;
    if (!key.empty()) {
        text += " for “";
        text += key;
        text += "”";
    }
    text += " but found ";
    text += kindName(found);
    text += ".";
    return DecodingError(text);
}
} // namespace

const nlohmann::json& object(const nlohmann::json& value) {
    if (!value.is_object()) throw typeMismatch("an object", {}, value);
    return value;
}

const nlohmann::json& field(const nlohmann::json& object, std::string_view key) {
    auto it = object.find(key);
    if (it == object.end()) throw DecodingError("No value for key “" + std::string(key) + "”.");
    return *it;
}

const nlohmann::json* optionalField(const nlohmann::json& object, std::string_view key) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return nullptr;
    return &*it;
}

std::string string(const nlohmann::json& value, std::string_view key) {
    if (!value.is_string()) throw typeMismatch("text", key, value);
    return value.get<std::string>();
}

bool boolean(const nlohmann::json& value, std::string_view key) {
    if (!value.is_boolean()) throw typeMismatch("a bool", key, value);
    return value.get<bool>();
}

std::int64_t integer(const nlohmann::json& value, std::string_view key, std::int64_t minimum, std::int64_t maximum) {
    auto outOfRange = [&] {
        return DecodingError("The number for “" + std::string(key) + "” does not fit between " +
                             std::to_string(minimum) + " and " + std::to_string(maximum) + ".");
    };
    if (value.is_number_unsigned()) {
        auto n = value.get<std::uint64_t>();
        if (n > static_cast<std::uint64_t>(maximum)) throw outOfRange();
        return static_cast<std::int64_t>(n);
    }
    if (value.is_number_integer()) {
        auto n = value.get<std::int64_t>();
        if (n < minimum || n > maximum) throw outOfRange();
        return n;
    }
    if (value.is_number_float()) {
        double d = value.get<double>();
        if (!std::isfinite(d) || std::trunc(d) != d) throw typeMismatch("a whole number", key, value);
        // Checked against 2^63 first: converting a double outside the 64-bit range is undefined.
        if (d < -9223372036854775808.0 || d >= 9223372036854775808.0) throw outOfRange();
        auto n = static_cast<std::int64_t>(d);
        if (n < minimum || n > maximum) throw outOfRange();
        return n;
    }
    throw typeMismatch("a number", key, value);
}

const nlohmann::json& array(const nlohmann::json& value, std::string_view key) {
    if (!value.is_array()) throw typeMismatch("an array", key, value);
    return value;
}

std::pair<std::size_t, const nlohmann::json*> oneCase(const nlohmann::json& value,
                                                       std::span<const std::string_view> cases) {
    object(value);
    std::size_t found = cases.size();
    const nlohmann::json* payload = nullptr;
    int recognised = 0;
    for (std::size_t i = 0; i < cases.size(); ++i) {
        auto it = value.find(cases[i]);
        if (it == value.end()) continue;
        ++recognised;
        found = i;
        payload = &*it;
    }
    if (recognised != 1) throw DecodingError("Invalid number of keys found, expected one.");
    if (!payload->is_object()) throw typeMismatch("an object", cases[found], *payload);
    return {found, payload};
}

DecodingError invalidRawValue(std::string_view type, std::string_view raw) {
    return DecodingError("Cannot initialize " + std::string(type) + " from invalid String value " + std::string(raw));
}

} // namespace JSONRead

} // namespace tavrick
