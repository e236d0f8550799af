#pragma once

#include <string>

namespace tavrick {

// Who this build is, from the main bundle, with fixed answers when the bundle does not say.
namespace AppInfo {

inline constexpr const char* fallbackBundleIdentifier = "com.orvell.tavrick";

// The main bundle's identifier, else the fallback.
std::string bundleIdentifier();
// "CFBundleDisplayName", else "Tavrick".
std::string displayName();
// "CFBundleShortVersionString", else "0.0.0".
std::string version();
// "CFBundleVersion", else "0".
std::string build();
// version + " (" + build + ")".
std::string versionString();

} // namespace AppInfo

} // namespace tavrick
