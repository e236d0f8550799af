#include "FanKit/FanHelperInstaller.h"

#include "FanCore/FanProtocol.h"
#include "SigningCore/CodeIdentity.h"

#include <filesystem>

namespace tavrick {

std::optional<FanHelperBundle> FanHelperBundle::make(const std::string& bundleIdentifier, const std::string& helperPath,
                                                     const std::optional<std::string>& team,
                                                     const std::optional<std::string>& build) {
    if (bundleIdentifier != FanHelperIdentity::appIdentifier) return std::nullopt;
    std::error_code error;
    if (!std::filesystem::exists(helperPath, error)) return std::nullopt;
    auto requirement = FanHelperIdentity::helperRequirement(team);
    if (!requirement) return std::nullopt;
    if (!build) return std::nullopt;
    return FanHelperBundle{*requirement, helperPath, *build};
}

std::optional<std::string> FanHelperBundle::bundledHash() const { return CodeIdentity::cdHash(helperPath); }

} // namespace tavrick
