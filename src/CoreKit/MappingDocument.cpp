#include "CoreKit/MappingDocument.h"

#include <nlohmann/json.hpp>

#include <limits>

namespace tavrick {

namespace {

std::int64_t decodeSchemaVersion(const nlohmann::json& object) {
    return JSONRead::integer(JSONRead::field(object, "schemaVersion"), "schemaVersion",
                             std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max());
}

template <class Element>
nlohmann::json document(std::int64_t schemaVersion, const std::vector<Element>& elements) {
    auto list = nlohmann::json::array();
    list.get_ref<nlohmann::json::array_t&>().reserve(elements.size());
    for (const auto& element : elements) list.push_back(element.toJSON());
    nlohmann::json object = nlohmann::json::object();
    object["mappings"] = std::move(list);
    object["schemaVersion"] = schemaVersion;
    return object;
}

// Both document forms differ only in how one element is read: strictly, or keeping what cannot be.
template <class Document>
Document decodeDocument(const nlohmann::json& json) {
    using Element = typename decltype(Document::mappings)::value_type;
    const auto& object = JSONRead::object(json);
    Document result;
    result.schemaVersion = decodeSchemaVersion(object);
    const auto& list = JSONRead::array(JSONRead::field(object, "mappings"), "mappings");
    result.mappings.reserve(list.size());
    for (const auto& element : list) result.mappings.push_back(Element::fromJSON(element));
    return result;
}

} // namespace

nlohmann::json MappingDocument::toJSON() const {
    return document(schemaVersion, mappings);
}

MappingDocument MappingDocument::fromJSON(const nlohmann::json& json) {
    return decodeDocument<MappingDocument>(json);
}

nlohmann::json StoredMapping::toJSON() const {
    if (const auto* mapping = asKnown()) return mapping->toJSON();
    return std::get<JSONValue>(value).toJSON();
}

StoredMapping StoredMapping::fromJSON(const nlohmann::json& json) {
    try {
        return known(Mapping::fromJSON(json));
    } catch (const DecodingError&) {
    } catch (const nlohmann::json::exception&) {
    }
    return unknown(JSONValue::fromJSON(json));
}

nlohmann::json StoredMappingDocument::toJSON() const {
    return document(schemaVersion, mappings);
}

StoredMappingDocument StoredMappingDocument::fromJSON(const nlohmann::json& json) {
    return decodeDocument<StoredMappingDocument>(json);
}

namespace MappingFile {

std::string prettyText(const nlohmann::json& json) {
    // Parsed text is always valid UTF-8; anything else came from memory and is replaced rather
    // than failing the save.
    auto text = json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
    text.push_back('\n');
    return text;
}

} // namespace MappingFile

} // namespace tavrick
