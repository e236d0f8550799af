#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/DispatchScheduler.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Tavrick/CommandLine.h"

#include <filesystem>
#include <ostream>

namespace tavrick {

class X11EventSystem;

// The command-line routines that answer, from a terminal, whether something works. Each prints
// plain lines and gives the process's exit status: 0 when its verdict is good, 1 when not, 2 for
// a routine this build does not have. None makes a coordinator.
namespace Diagnostics {

struct Context {
    std::ostream& out;
    DispatchScheduler& scheduler;
    SimulatedSession& session;
    DiagnosticLog& log;
    std::filesystem::path mappingsFile;
    // Where a running Tavrick's session listens for keys from other processes.
    std::filesystem::path sessionSocket;
    // The X11 session's keyboard, when DISPLAY names a server that answers: keys are then
    // posted and heard there instead of in the simulated session.
    X11EventSystem* x11 = nullptr;
};

int run(Context& context, const DiagnosticCommand& command);

int printLogAndExit(Context& context);
int postKeyAndExit(Context& context, std::uint16_t keyCode, std::int64_t modifiers);
int runTapSelfTestAndExit(Context& context);
int runTapProbeAndExit(Context& context, double seconds);
int runMouseRecorderSelfTestAndExit(Context& context);
// Sends a touchpad recording to a running Tavrick, whose simulated trackpad plays it.
int playTouchesAndExit(Context& context, const std::filesystem::path& recording);
// Draws a right-button stroke in a running Tavrick's session, as a user's mouse would.
int postStrokeAndExit(Context& context, const std::string& strokes);
// A right-button press at `from`, drags in `steps` even steps, and the release at `to`. False, and
// nothing posted, when the events cannot be made.
bool postRightDrag(EventSystem& events, Point from, Point to, int steps = 8);
// "<flag> is not available in this build yet."
int notAvailableAndExit(std::ostream& out, DiagnosticFlag flag);

} // namespace Diagnostics

} // namespace tavrick
