#pragma once

#include "ActionKit/ActionEnvironment.h"
#include "CoreKit/Models.h"

#include <string>

namespace tavrick {

// Starting, bringing forward and opening, through the workspace. Failures are logged.
namespace AppLauncher {

// Activates the first running copy as it is; otherwise launches the installed one.
void launchOrActivate(const ActionEnvironment& env, const std::string& bundleID);
// True when the desktop opened it.
bool open(const ActionEnvironment& env, const URL& url);
// Shows the file in the file manager, after expanding a leading "~".
void reveal(const ActionEnvironment& env, const std::string& path);

} // namespace AppLauncher

} // namespace tavrick
