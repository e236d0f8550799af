#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// The diagnostic flags that end the process instead of starting the application, in the order
// they are looked for: when two are given, the earlier row wins.
enum class DiagnosticFlag {
    diagnose,
    postKey,
    renderIcons,
    probeSelection,
    log,
    tapSelfTest,
    mouseRecorderSelfTest,
    vaultSelfTest,
    touchIDProbe,
    tapProbe,
    fanProbe,
    // Plays a touchpad recording into a running Tavrick's simulated trackpad.
    playTouches,
    // Draws a right-button stroke in a running Tavrick's session.
    postStroke,
    // Prints the system monitor's readings, the local servers and the search path's diagnosis.
    systemReport,
    // Stops a listening process by its pid, politely, and by force only when asked and ignored.
    stopServer,
    // Reads and prints the developer tools' view of this machine: caches, clean-up tools,
    // identity, network. Changes nothing.
    devReport,
};

struct DiagnosticCommand {
    DiagnosticFlag flag = DiagnosticFlag::diagnose;
    std::uint16_t keyCode = 0;        // postKey
    std::int64_t modifiers = 0;       // postKey
    std::string folder;               // renderIcons
    std::string file;                 // playTouches
    std::string strokes;              // postStroke
    std::int32_t pid = 0;             // stopServer
    bool force = false;               // stopServer
    double seconds = 0;               // probeSelection, tapProbe
    std::optional<double> boostSeconds;  // fanProbe
    bool release = false;             // fanProbe

    bool operator==(const DiagnosticCommand&) const = default;
};

namespace CommandLine {

// The flag's text as typed, "--tap-selftest".
const char* spelling(DiagnosticFlag flag);

// Every flag in the order they are looked for.
const std::vector<DiagnosticFlag>& allFlags();

// Looks at every argument, the program's name included, by exact equality. A flag whose
// required argument is missing or unparsable is ignored, as if it were not there; an optional
// argument that is missing or unparsable takes its default. Each such flag adds a sentence to
// `problems`, for the log.
std::optional<DiagnosticCommand> parse(const std::vector<std::string>& arguments,
                                       std::vector<std::string>* problems = nullptr);

} // namespace CommandLine

} // namespace tavrick
