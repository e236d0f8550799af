#include "ActionKit/FinderTarget.h"

#include "ActionKit/FileURL.h"

namespace tavrick::FinderTarget {

namespace {

URL fileURL(const std::filesystem::path& path) {
    // Only a relative path has no file URL, and every path here is absolute by then.
    return FileURL::fromPath(path).value_or(URL{"file://" + path.string()});
}

URL customURL(const std::optional<std::string>& customPath, const std::filesystem::path& home) {
    if (!customPath || customPath->empty()) return fileURL(home);
    if (FileURL::toPath(*customPath)) return URL{*customPath};
    auto path = FileURL::expandingTilde(*customPath, home);
    // A relative path has nothing to be relative to but the home folder.
    if (path.is_relative()) path = home / path;
    return fileURL(path);
}

} // namespace

URL url(const std::optional<std::string>& code, const std::optional<std::string>& customPath,
        const std::filesystem::path& home) {
    if (!code) return fileURL(std::string(recentsPath));
    if (*code == "PfDe") return fileURL(home / "Desktop");
    if (*code == "PfDo") return fileURL(home / "Documents");
    if (*code == "PfHm") return fileURL(home);
    if (*code == "PfID") return fileURL(home / "Library/Mobile Documents/com~apple~CloudDocs");
    if (*code == "PfCm" || *code == "PfVo") return fileURL("/");
    if (*code == "PfLo") return customURL(customPath, home);
    if (*code == "PfAF") return fileURL(std::string(recentsPath));
    return fileURL(home);
}

URL current(const PreferenceStore& finderDefaults, const std::filesystem::path& home) {
    return url(finderDefaults.string("NewWindowTarget"), finderDefaults.string("NewWindowTargetPath"), home);
}

} // namespace tavrick::FinderTarget
