#pragma once

#include "CoreKit/Bundle.h"

#include <vector>

namespace tavrick {

// This build as a bundle: identifier "com.orvell.tavrick", version and build number from the
// build system, and resources looked up next to the executable ("resources/" beside it, as the
// build leaves them, or "../share/tavrick/" as an install leaves them), then in the source tree.
class LinuxBundle final : public Bundle {
public:
    // `executable` is the running program's path; empty means /proc/self/exe.
    explicit LinuxBundle(std::filesystem::path executable = {});
    LinuxBundle(std::filesystem::path executable, std::vector<std::filesystem::path> resourceDirectories);

    std::optional<std::string> identifier() const override;
    std::optional<std::string> infoString(const std::string& key) const override;
    std::optional<std::filesystem::path> resourcePath(const std::string& name) const override;
    std::filesystem::path bundlePath() const override { return executable_; }

    const std::vector<std::filesystem::path>& resourceDirectories() const { return resourceDirectories_; }

private:
    std::filesystem::path executable_;
    std::vector<std::filesystem::path> resourceDirectories_;
};

} // namespace tavrick
