#pragma once

#include "CoreKit/Models.h"

#include <filesystem>
#include <optional>
#include <string>

namespace tavrick::FileURL {

// "file:///home/ann/My%20Notes" for an absolute path; nothing for a relative one.
std::optional<URL> fromPath(const std::filesystem::path& path);
// The local path of a file URL; nothing for any other URL, or a file URL naming another host.
std::optional<std::filesystem::path> toPath(const std::string& url);
// A leading "~" (alone or before "/") becomes `home`; everything else stays.
std::filesystem::path expandingTilde(const std::string& path, const std::filesystem::path& home);

} // namespace tavrick::FileURL
