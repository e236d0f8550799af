#pragma once

#include "CoreKit/DiagnosticLog.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// The only lines Tavrick ever writes into a user's file: a marked block of PATH exports in
// ~/.zprofile. Everything outside the markers is kept byte for byte.
namespace ManagedPathBlock {

constexpr std::string_view beginMarker = "# >>> added by Tavrick >>>";
constexpr std::string_view endMarker = "# <<< added by Tavrick <<<";

std::string render(const std::vector<std::string>& folders, std::string_view lineEnd = "\n");
// The folders of every block in the text, in order.
std::vector<std::string> folders(std::string_view text);
// The text with the block replaced in place (a second block is dropped), added at the end after
// a blank line when there is none, or removed when `folders` is empty. Nothing, with `problem`
// set, when a block has no end marker: writing then could swallow the user's own lines.
std::optional<std::string> apply(const std::vector<std::string>& folders, std::string_view text, std::string* problem = nullptr);
// Reads the file (absent counts as empty), applies, and writes it back atomically; notes the
// outcome under "path".
bool setFolders(const std::vector<std::string>& folders, const std::filesystem::path& file, DiagnosticLog* log);
std::filesystem::path profileURL(const std::filesystem::path& home);

} // namespace ManagedPathBlock

} // namespace tavrick
