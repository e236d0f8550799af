#include "ActionKit/AppLauncher.h"

#include "ActionKit/FileURL.h"
#include "CoreKit/Log.h"

#include <system_error>

namespace tavrick::AppLauncher {

void launchOrActivate(const ActionEnvironment& env, const std::string& bundleID) {
    auto running = env.workspace.runningApplications(bundleID);
    if (!running.empty()) {
        // A running application keeps its windows as they are; it is never launched twice.
        env.workspace.activate(running.front().processIdentifier);
        return;
    }
    auto url = env.launcher.applicationURL(bundleID);
    if (!url) {
        Log::action.notice("No app installed with bundle id %s", bundleID.c_str());
        return;
    }
    env.launcher.openApplication(*url, [bundleID](std::optional<std::string> failure) {
        if (failure) Log::action.error("Could not launch %s: %s", bundleID.c_str(), failure->c_str());
    });
}

bool open(const ActionEnvironment& env, const URL& url) {
    auto failure = env.launcher.open(url);
    if (failure) Log::action.notice("Could not open %s: %s", url.absoluteString.c_str(), failure->c_str());
    return !failure;
}

void reveal(const ActionEnvironment& env, const std::string& path) {
    const auto expanded = FileURL::expandingTilde(path, env.home);
    std::error_code error;
    // A dangling link is still something there to show.
    if (!std::filesystem::exists(std::filesystem::symlink_status(expanded, error))) {
        Log::action.notice("Nothing at %s", expanded.c_str());
        return;
    }
    if (auto failure = env.launcher.reveal(expanded)) {
        Log::action.notice("Could not reveal %s: %s", expanded.c_str(), failure->c_str());
    }
}

} // namespace tavrick::AppLauncher
