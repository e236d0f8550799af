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

} // namespace tavrick
