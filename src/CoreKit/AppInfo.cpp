#include "CoreKit/AppInfo.h"

#include "CoreKit/Bundle.h"

namespace tavrick::AppInfo {

namespace {

// An empty value in the information dictionary says nothing, so it falls back like a missing one.
std::string infoOr(const char* key, const char* fallback) {
    auto value = Bundle::main().infoString(key);
    return value && !value->empty() ? *value : std::string(fallback);
}

} // namespace

std::string bundleIdentifier() {
    auto identifier = Bundle::main().identifier();
    return identifier && !identifier->empty() ? *identifier : std::string(fallbackBundleIdentifier);
}

std::string displayName() { return infoOr("CFBundleDisplayName", "Tavrick"); }

std::string version() { return infoOr("CFBundleShortVersionString", "0.0.0"); }

std::string build() { return infoOr("CFBundleVersion", "0"); }

std::string versionString() { return version() + " (" + build() + ")"; }

} // namespace tavrick::AppInfo
