#pragma once

#include "BackupKit/Archive.h"

#include <filesystem>
#include <optional>
#include <string>

namespace tavrick::BackupFile {

// Writes the archive so that its content never exists with permissions wider than the owner's:
// the file is made (or narrowed) to 0600 first, replaced atomically, and set to 0600 once more
// since the replacement is a new file. The failure's sentence, or nothing.
std::optional<std::string> write(const Archive& archive, const std::filesystem::path& url);
std::optional<std::string> writeText(const std::string& text, const std::filesystem::path& url);

} // namespace tavrick::BackupFile
