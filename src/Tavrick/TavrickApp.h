#pragma once

#include "Tavrick/AppCoordinator.h"

#include <memory>

namespace tavrick {

// The process: it looks at the command line, and either runs one diagnostic routine and ends,
// or makes the coordinator, starts it 3.0 seconds later and runs until asked to terminate.
class TavrickApp {
public:
    static int main(int argc, char** argv);
    // Makes the coordinator, draws the windows as the settings say, and schedules the coordinator's
    // start on the main queue 3.0 seconds on, so the menu bar item shows before the engines.
    static std::shared_ptr<AppCoordinator> construct(AppEnvironment environment);
};

} // namespace tavrick
