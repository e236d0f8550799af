#pragma once

#include "CoreKit/Models.h"
#include "CoreKit/PreferenceStore.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tavrick {

// What a new file manager window would show, from the user's "com.apple.finder" preferences.
namespace FinderTarget {

inline constexpr std::string_view recentsPath =
    "/System/Library/CoreServices/Finder.app/Contents/Resources/MyLibraries/myDocuments.cannedSearch";
inline constexpr std::string_view preferenceDomain = "com.apple.finder";

// `code` is "NewWindowTarget" ("PfDe", "PfHm", ...), `customPath` "NewWindowTargetPath".
URL url(const std::optional<std::string>& code, const std::optional<std::string>& customPath,
        const std::filesystem::path& home);
// Reads both keys; a value of another type than text counts as missing.
URL current(const PreferenceStore& finderDefaults, const std::filesystem::path& home);

} // namespace FinderTarget

} // namespace tavrick
