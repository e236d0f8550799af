#pragma once

#include "CoreKit/Directories.h"

#include <string>

namespace tavrick {

// The XDG base directories: $XDG_DATA_HOME (else ~/.local/share) for data, $XDG_CONFIG_HOME
// (else ~/.config) for preferences. Relative values are ignored, as the XDG rules say.
class LinuxDirectories final : public Directories {
public:
    LinuxDirectories();
    std::filesystem::path applicationSupport() const override { return data_; }
    std::filesystem::path preferences() const override { return config_; }

    // The same rule over given values, for tests.
    static std::filesystem::path resolve(const char* xdgValue, const char* home, const char* fallback);

private:
    std::filesystem::path data_;
    std::filesystem::path config_;
};

} // namespace tavrick
