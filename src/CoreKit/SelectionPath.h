#pragma once

#include "CoreKit/SelectionModel.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tavrick {

// Whether a selection names something on disk. The Open-in-Finder button is the one that has to
// be earned, so only an absolute path (after the unwrapping a person would do in their head)
// counts; a bare word never opens anything.
namespace SelectionPath {

using Kind = SelectionPathKind;

struct Target {
    std::string path;
    Kind kind;
    friend bool operator==(const Target&, const Target&) = default;
};

// A longer selection is not a path.
inline constexpr std::size_t maxLength = 1024;

// The candidate absolute path in `text`, with `home` for a leading "~".
std::optional<std::string> resolve(std::string_view text, const std::string& home);
// Folder, file, or nothing when nothing is there. A bundle is a folder.
std::optional<Kind> kindOnDisk(const std::string& path);
std::optional<Target> target(std::string_view text, const std::string& home,
                             const std::function<std::optional<Kind>(const std::string&)>& kind);

} // namespace SelectionPath

} // namespace tavrick
