#pragma once

#include <filesystem>
#include <memory>

namespace tavrick {

// The user's base directories. The application installs the host's adapter at start-up; tests
// install temporary ones, so nothing ever reaches the real home directory by accident.
class Directories {
public:
    virtual ~Directories() = default;
    // Where programs keep their data ("Application Support").
    virtual std::filesystem::path applicationSupport() const = 0;
    // Where programs keep their preferences.
    virtual std::filesystem::path preferences() const = 0;

    // Throws std::logic_error when nothing is installed.
    static const Directories& current();
    static void install(std::shared_ptr<const Directories> directories);
};

// The program's own support directory: the application support directory, then a folder named
// after the main bundle's identifier, or "com.orvell.tavrick" when there is none.
std::filesystem::path supportDirectory();

} // namespace tavrick
