#include "Tavrick/AppDelegate.h"

namespace tavrick {

AppDelegate::TerminateReply AppDelegate::applicationShouldTerminate() {
    log_.note("shutdown", "termination requested");
    log_.flush();
    return TerminateReply::now;
}

void AppDelegate::applicationWillTerminate() {
    log_.note("shutdown", "terminating cleanly");
    log_.endSession();
}

bool AppDelegate::applicationShouldTerminateAfterLastWindowClosed() {
    if (!hasLoggedTerminationPolicy_) {
        hasLoggedTerminationPolicy_ = true;
        log_.note("shutdown", "asked whether to terminate after the last window closed — refusing (logged once)");
    }
    return false;
}

} // namespace tavrick
