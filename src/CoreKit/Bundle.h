#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace tavrick {

// Who this build is and where its bundled resources are. The application installs the host's
// adapter once at start-up; until then (and in tests that install nothing) the main bundle knows
// nothing, and every reader falls back to its default.
class Bundle {
public:
    virtual ~Bundle() = default;
    virtual std::optional<std::string> identifier() const = 0;
    // Values of the information dictionary: "CFBundleShortVersionString", "CFBundleVersion",
    // "CFBundleDisplayName".
    virtual std::optional<std::string> infoString(const std::string& key) const = 0;
    // The path of a bundled resource such as "DefaultMappings.json", when it exists.
    virtual std::optional<std::filesystem::path> resourcePath(const std::string& name) const = 0;
    virtual std::filesystem::path bundlePath() const = 0;

    static const Bundle& main();
    static void setMain(std::shared_ptr<const Bundle> bundle);
};

} // namespace tavrick
