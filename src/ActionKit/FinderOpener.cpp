#include "ActionKit/FinderOpener.h"

#include "ActionKit/AppLauncher.h"
#include "ActionKit/FileURL.h"
#include "ActionKit/FinderTarget.h"
#include "CoreKit/Log.h"

namespace tavrick::FinderOpener {

bool hasVisibleWindow(const std::vector<WindowListEntry>& windows) {
    for (const auto& window : windows) {
        if (window.ownerName == "Finder" && window.layer == 0 && window.bounds &&
            window.bounds->size.height > minimumWindowHeight) {
            return true;
        }
    }
    return false;
}

void open(const ActionEnvironment& env) {
    if (hasVisibleWindow(env.windowList.onScreenWindows())) {
        AppLauncher::launchOrActivate(env, finderBundleID);
        return;
    }
    const URL target = FinderTarget::current(env.finderDefaults, env.home);
    Log::action.info("Opening a Finder window at %s", target.absoluteString.c_str());
    auto failure = env.launcher.open(target);
    if (!failure) return;
    Log::action.notice("Could not open %s; falling back to home", target.absoluteString.c_str());
    if (auto home = FileURL::fromPath(env.home)) AppLauncher::open(env, *home);
}

} // namespace tavrick::FinderOpener
