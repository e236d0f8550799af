#pragma once

#include "FanHelper/FanHelperCore.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <set>
#include <string>

namespace tavrick {

// The helper's one thread: the listening socket, its clients and the control tick, all through
// poll(2). A peer must run an executable whose SHA-256 is one of the pinned ones and belong to
// the helper's own team; any other is turned away without an answer.
class FanHelperServer {
public:
    struct Options {
        std::filesystem::path socketPath;
        std::set<std::string> allowedClients;  // SHA-256 of the executables that may connect
        // Whoever says nothing this long after connecting is let go, so a silent client does not
        // hold one of the few places.
        double silentClientTimeout = 10.0;
        double idleExitAfter = FanPolicy::idleExitAfter;
        // The watchdog's hand-back, over its own connection to the controller; none in tests
        // that drive the server without one.
        std::function<void()> emergency;
    };

    FanHelperServer(FanHelperCore& core, Options options);
    // Runs until told to stop (or idle, or asked to step aside); every fan is back on return.
    // Returns the exit status.
    int run(const std::atomic<bool>& stopRequested);

private:
    FanHelperCore& core_;
    Options options_;
};

} // namespace tavrick
