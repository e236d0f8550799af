#pragma once

#include "CoreKit/DiagnosticLog.h"

#include <functional>

namespace tavrick {

// The application's side of the platform's lifecycle: what happens when the system asks the
// program to terminate, and when it is about to.
class AppDelegate {
public:
    enum class TerminateReply { now, cancel, later };

    explicit AppDelegate(DiagnosticLog& log) : log_(log) {}

    // The termination request is logged and on disk before anything else happens.
    TerminateReply applicationShouldTerminate();
    // The last word of a clean run: the running marker goes, so the next launch knows.
    void applicationWillTerminate();

private:
    DiagnosticLog& log_;
};

} // namespace tavrick
