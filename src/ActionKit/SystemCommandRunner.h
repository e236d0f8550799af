#pragma once

#include "ActionKit/ActionEnvironment.h"
#include "CoreKit/Models.h"

namespace tavrick {

namespace SystemCommandRunner {

inline constexpr const char* missionControlPath = "/System/Applications/Mission Control.app";

void run(const ActionEnvironment& env, SystemCommand command);
// Quits the frontmost application, never this program.
void quitFrontmost(const ActionEnvironment& env);

} // namespace SystemCommandRunner

} // namespace tavrick
