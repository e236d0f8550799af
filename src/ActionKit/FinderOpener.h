#pragma once

#include "ActionKit/ActionEnvironment.h"

namespace tavrick {

// Brings up the file manager: its open windows when it has any, a new window at the user's
// preferred place otherwise.
namespace FinderOpener {

inline constexpr const char* finderBundleID = "com.apple.finder";
// Shorter windows are the desktop's and the file manager's small helpers, not a browser window.
inline constexpr double minimumWindowHeight = 100.0;

bool hasVisibleWindow(const std::vector<WindowListEntry>& windows);
void open(const ActionEnvironment& env);

} // namespace FinderOpener

} // namespace tavrick
