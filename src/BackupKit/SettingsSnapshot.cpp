#include "BackupKit/SettingsSnapshot.h"

#include "BackupKit/Archive.h"
#include "CoreKit/AppSettings.h"

#include <plist/plist.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>

namespace tavrick::SettingsSnapshot {

namespace {

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
using Plist = std::unique_ptr<void, PlistFree>;

plist_t toPlist(const PreferenceValue& value) {
    switch (value.kind()) {
    case PreferenceValue::Kind::boolean: return plist_new_bool(*value.asBool() ? 1 : 0);
    // Integers are kept in two's complement, which is how the binary form stores negative ones.
    case PreferenceValue::Kind::integer: return plist_new_uint(static_cast<std::uint64_t>(*value.asInteger()));
    case PreferenceValue::Kind::real: return plist_new_real(*value.asReal());
    case PreferenceValue::Kind::string: return plist_new_string(value.asString()->c_str());
    case PreferenceValue::Kind::data: {
        const auto& bytes = *value.asData();
        return plist_new_data(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    case PreferenceValue::Kind::array: {
        plist_t array = plist_new_array();
        for (const auto& element : *value.asArray()) plist_array_append_item(array, toPlist(element));
        return array;
    }
    case PreferenceValue::Kind::dictionary: {
        plist_t dict = plist_new_dict();
        for (const auto& [key, element] : *value.asDictionary()) plist_dict_set_item(dict, key.c_str(), toPlist(element));
        return dict;
    }
    }
    return plist_new_bool(0);
}

struct Unreadable {};

PreferenceValue fromPlist(plist_t node) {
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        std::uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return PreferenceValue(value != 0);
    }
    case PLIST_UINT: {
        std::uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return PreferenceValue(static_cast<std::int64_t>(value));
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return PreferenceValue(value);
    }
    case PLIST_STRING: {
        char* value = nullptr;
        plist_get_string_val(node, &value);
        std::string text = value ? value : "";
        std::free(value);
        return PreferenceValue(std::move(text));
    }
    case PLIST_DATA: {
        char* value = nullptr;
        std::uint64_t length = 0;
        plist_get_data_val(node, &value, &length);
        PreferenceValue::Data bytes(value, value + length);
        std::free(value);
        return PreferenceValue(std::move(bytes));
    }
    case PLIST_ARRAY: {
        PreferenceValue::Array array;
        const std::uint32_t count = plist_array_get_size(node);
        for (std::uint32_t i = 0; i < count; ++i) array.push_back(fromPlist(plist_array_get_item(node, i)));
        return PreferenceValue(std::move(array));
    }
    case PLIST_DICT: {
        PreferenceValue::Dictionary dict;
        plist_dict_iter iterator = nullptr;
        plist_dict_new_iter(node, &iterator);
        // Freed on every way out, an unreadable value's included.
        std::unique_ptr<void, decltype(&std::free)> ownedIterator(iterator, &std::free);
        for (;;) {
            char* key = nullptr;
            plist_t element = nullptr;
            plist_dict_next_item(node, iterator, &key, &element);
            if (!element) {
                std::free(key);
                break;
            }
            std::string name = key ? key : "";
            std::free(key);
            dict.emplace(std::move(name), fromPlist(element));
        }
        return PreferenceValue(std::move(dict));
    }
    default:
        // Dates, UIDs and the like are nothing a setting of this program holds.
        throw Unreadable{};
    }
}

} // namespace

const std::set<std::string>& excluded() {
    static const std::set<std::string> keys{AppSettings::Key::aiBaseURL};
    return keys;
}

bool carries(std::string_view key) {
    if (excluded().count(std::string(key))) return false;
    return std::find(AppSettings::backedUpKeys.begin(), AppSettings::backedUpKeys.end(), key) !=
           AppSettings::backedUpKeys.end();
}

std::string write(const PreferenceValue::Dictionary& values) {
    Plist root(toPlist(PreferenceValue(values)));
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(root.get(), &bytes, &length);
    std::string out(bytes ? bytes : "", bytes ? length : 0);
    plist_to_bin_free(bytes);
    return out;
}

std::string capture(const PreferenceStore& defaults) {
    PreferenceValue::Dictionary values;
    for (const char* key : AppSettings::backedUpKeys) {
        if (!carries(key)) continue;
        if (auto value = defaults.object(key)) values.emplace(key, std::move(*value));
    }
    return write(values);
}

PreferenceValue::Dictionary read(std::string_view bytes) {
    // Only the binary form is a snapshot; the parser is not asked to guess at XML or text.
    if (bytes.size() < 8 || bytes.size() > UINT32_MAX ||
        !plist_is_binary(bytes.data(), static_cast<std::uint32_t>(bytes.size())))
        throw ArchiveError::damaged();
    plist_t parsed = nullptr;
    plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &parsed);
    Plist root(parsed);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT) throw ArchiveError::damaged();
    try {
        auto value = fromPlist(root.get());
        return *value.asDictionary();
    } catch (const Unreadable&) {
        throw ArchiveError::damaged();
    }
}

std::vector<std::string> apply(std::string_view bytes, PreferenceStore& defaults) {
    const auto values = read(bytes);
    std::vector<std::string> written;
    for (const auto& [key, value] : values) {
        if (!carries(key)) continue;
        defaults.set(key, value);
        written.push_back(key);
    }
    return written;  // the dictionary's order is already sorted
}

std::vector<std::string> keys(std::string_view bytes) {
    try {
        std::vector<std::string> out;
        for (const auto& [key, value] : read(bytes)) out.push_back(key);
        return out;
    } catch (const ArchiveError&) {
        return {};
    }
}

} // namespace tavrick::SettingsSnapshot
