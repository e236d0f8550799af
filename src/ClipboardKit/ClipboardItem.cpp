#include "ClipboardKit/ClipboardItem.h"

#include "CoreKit/UnicodeText.h"

#include <nlohmann/json.hpp>

namespace tavrick {

const std::string& SharedText::folded() const {
    if (!payload_->folded) payload_->folded = UnicodeText::folded(payload_->text);
    return *payload_->folded;
}

std::string ClipboardItem::preview() const {
    std::string flat = text.str();
    for (char& c : flat) {
        if (c == '\n' || c == '\t') c = ' ';
    }
    std::string joined;
    std::size_t start = 0;
    while (start <= flat.size()) {
        std::size_t end = flat.find(' ', start);
        if (end == std::string::npos) end = flat.size();
        if (end > start) {
            if (!joined.empty()) joined.push_back(' ');
            joined.append(flat, start, end - start);
        }
        start = end + 1;
    }
    if (UnicodeText::characterCount(joined, 61) < 61) return joined;
    return std::string(UnicodeText::prefix(joined, 59)) + "…";
}

nlohmann::json toJSON(const ClipboardItem& item) {
    nlohmann::json json = {
        {"id", item.id.uuidString()},
        {"text", item.text.str()},
        {"copiedAt", item.copiedAt - referenceDateOffset},
        {"isPinned", item.isPinned},
    };
    if (item.sourceBundleID) json["sourceBundleID"] = *item.sourceBundleID;
    if (item.sourceAppName) json["sourceAppName"] = *item.sourceAppName;
    return json;
}

std::optional<ClipboardItem> clipboardItemFromJSON(const nlohmann::json& json) {
    if (!json.is_object()) return std::nullopt;
    auto id = json.find("id");
    auto text = json.find("text");
    auto copiedAt = json.find("copiedAt");
    auto isPinned = json.find("isPinned");
    if (id == json.end() || !id->is_string() || text == json.end() || !text->is_string() ||
        copiedAt == json.end() || !copiedAt->is_number() || isPinned == json.end() || !isPinned->is_boolean()) {
        return std::nullopt;
    }
    auto uuid = UUID::parse(id->get_ref<const std::string&>());
    if (!uuid) return std::nullopt;
    ClipboardItem item{*uuid, SharedText(text->get<std::string>()), copiedAt->get<double>() + referenceDateOffset,
                       std::nullopt, std::nullopt, isPinned->get<bool>()};
    for (auto [key, field] : {std::pair{"sourceBundleID", &item.sourceBundleID}, std::pair{"sourceAppName", &item.sourceAppName}}) {
        auto found = json.find(key);
        if (found == json.end() || found->is_null()) continue;
        if (!found->is_string()) return std::nullopt;
        *field = found->get<std::string>();
    }
    return item;
}

} // namespace tavrick
