#include "ClipboardKit/ClipboardPolicy.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace tavrick {

const std::set<std::string>& ClipboardPolicy::defaultExclusions() {
    static const std::set<std::string> exclusions = {
        "com.agilebits.onepassword7", "com.1password.1password", "com.bitwarden.desktop",
        "org.keepassxc.keepassxc",    "com.apple.keychainaccess", "in.sinew.Enpass-Desktop",
        "com.dashlane.Dashlane",      "com.lastpass.LastPass",
    };
    return exclusions;
}

ClipboardPolicy::Decision ClipboardPolicy::decide(const std::vector<std::string>& types,
                                                  const std::optional<std::string>& sourceBundleID,
                                                  std::int64_t textLength) const {
    for (const auto& type : types) {
        if (std::find(ClipboardMarker::all.begin(), ClipboardMarker::all.end(), type) != ClipboardMarker::all.end()) {
            return SkipConcealed{};
        }
    }
    if (sourceBundleID && excludedBundleIDs.count(*sourceBundleID)) return SkipExcludedApp{*sourceBundleID};
    if (textLength == 0) return SkipEmpty{};
    if (textLength > maximumTextLength) return SkipTooLarge{};
    return Record{};
}

nlohmann::json toJSON(const ClipboardPolicy& policy) {
    return {
        {"excludedBundleIDs", policy.excludedBundleIDs},
        {"maximumTextLength", policy.maximumTextLength},
        {"maximumItems", policy.maximumItems},
        {"clearOnQuit", policy.clearOnQuit},
    };
}

std::optional<ClipboardPolicy> clipboardPolicyFromJSON(const nlohmann::json& json) {
    if (!json.is_object()) return std::nullopt;
    ClipboardPolicy policy;
    if (auto found = json.find("excludedBundleIDs"); found != json.end()) {
        if (!found->is_array()) return std::nullopt;
        policy.excludedBundleIDs.clear();
        for (const auto& id : *found) {
            if (!id.is_string()) return std::nullopt;
            policy.excludedBundleIDs.insert(id.get<std::string>());
        }
    }
    for (auto [key, field] : {std::pair{"maximumTextLength", &policy.maximumTextLength},
                              std::pair{"maximumItems", &policy.maximumItems}}) {
        auto found = json.find(key);
        if (found == json.end()) continue;
        if (!found->is_number_integer()) return std::nullopt;
        *field = found->get<std::int64_t>();
    }
    if (auto found = json.find("clearOnQuit"); found != json.end()) {
        if (!found->is_boolean()) return std::nullopt;
        policy.clearOnQuit = found->get<bool>();
    }
    return policy;
}

} // namespace tavrick
