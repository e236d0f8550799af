#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/DispatchScheduler.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Tavrick/CommandLine.h"

#include <filesystem>
#include <optional>
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

// The report of what this copy is and holds: bundle, version, login item, fan helper and the
// permissions. Reads only. 1 when Accessibility is not granted.
int runAndExit(Context& context);
// The application icon at its sizes and the menu bar glyph, as PNG files in `folder`, made when
// missing; "could not render <file>" and 1 at the first picture that cannot be written.
int renderIconsAndExit(Context& context, const std::filesystem::path& folder);

int printLogAndExit(Context& context);
int postKeyAndExit(Context& context, std::uint16_t keyCode, std::int64_t modifiers);
int runTapSelfTestAndExit(Context& context);
int runTapProbeAndExit(Context& context, double seconds);
// Waits `after` seconds, then tells what the focused element of the running Tavrick's session
// publishes about its selection: attribute names and lengths, never the text.
int probeSelectionAndExit(Context& context, double after);
int runMouseRecorderSelfTestAndExit(Context& context);
// Sends a touchpad recording to a running Tavrick, whose simulated trackpad plays it.
int playTouchesAndExit(Context& context, const std::filesystem::path& recording);
// Draws a right-button stroke in a running Tavrick's session, as a user's mouse would.
int postStrokeAndExit(Context& context, const std::string& strokes);
// A right-button press at `from`, drags in `steps` even steps, and the release at `to`. False, and
// nothing posted, when the events cannot be made.
bool postRightDrag(EventSystem& events, Point from, Point to, int steps = 8);
// Reads the simulated fan controller and asks the real helper; with seconds it boosts to Max for
// that long and hands back; with `release` it hands back every manual fan.
int runFanProbeAndExit(Context& context, std::optional<double> boostSeconds, bool release);
// Memory, power, disk, the biggest processes, the listening servers and the search path with
// its advice, read from this machine.
int systemReportAndExit(Context& context);
// Stops the listening process `pid` with SIGTERM and reports the outcome; with `force`, one that
// ignored the request is then ended with SIGKILL.
int stopServerAndExit(Context& context, std::int32_t pid, bool force);
// What the developer tools see here: each cache with its size, the clean-up tools found, the
// large folders, the git and ssh identity and the network facts. Reads only.
int devReportAndExit(Context& context, const std::filesystem::path& home);
// Seals a test vault into the secret store, checks the stored bytes hold nothing readable,
// and leaves that record in place for another process to inspect.
int runVaultSelfTestAndExit(Context& context);
// What could stand in front of a stored key on this machine, and which item shapes hold one.
int runTouchIDProbeAndExit(Context& context);
// "<flag> is not available in this build yet."
int notAvailableAndExit(std::ostream& out, DiagnosticFlag flag);

} // namespace Diagnostics

} // namespace tavrick
