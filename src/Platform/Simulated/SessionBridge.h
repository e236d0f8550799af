#pragma once

#include "Platform/Simulated/SimulatedDesktop.h"
#include "Platform/Simulated/SimulatedSession.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>

namespace tavrick {

// Lets another process type into this process's simulated session, the way a second program on
// a real desktop posts keys that every tap sees. The running application listens on a Unix socket
// in its support directory; `tavrick --post-key` from another terminal connects and sends a key
// press, which then travels through the application's taps like a key the user pressed.
//
// The protocol is one line a request, answered with "ok\n" or "error <reason>\n":
//   key <keyCode> <modifiers>                     a key press through the taps
//   permission <accessibility|inputMonitoring> <granted|denied|notDetermined>
//   activate <bundle id>                          brings a running application to the front
// The last two need the simulated desktop.
class SessionBridge {
public:
    // Starts listening; nothing (and a log line) when the socket cannot be made. A stale socket
    // left by a killed run is replaced; a live one (another copy running) is left alone.
    static std::unique_ptr<SessionBridge> listen(SimulatedSession& session, std::filesystem::path socketPath);
    static std::unique_ptr<SessionBridge> listen(SimulatedSession& session, SimulatedDesktop* desktop,
                                                 std::filesystem::path socketPath);
    ~SessionBridge();
    SessionBridge(const SessionBridge&) = delete;
    SessionBridge& operator=(const SessionBridge&) = delete;

    const std::filesystem::path& path() const { return path_; }

    // Sends one key press to whichever process listens at `socketPath`. Nothing on success,
    // otherwise the reason.
    static std::optional<std::string> sendKey(const std::filesystem::path& socketPath, std::uint16_t keyCode,
                                              std::int64_t modifiers);
    // Sends one request line (without its newline). Nothing on success, otherwise the reason.
    static std::optional<std::string> send(const std::filesystem::path& socketPath, const std::string& request);

    // Whether a live process listens at `socketPath`: a running copy of Tavrick.
    static bool isListening(const std::filesystem::path& socketPath);

    // Handles one request line, posting into `session`; returns the answer line.
    static std::string handle(SimulatedSession& session, const std::string& request);
    static std::string handle(SimulatedSession& session, SimulatedDesktop* desktop, const std::string& request);

private:
    SessionBridge(SimulatedSession& session, SimulatedDesktop* desktop, std::filesystem::path path, int listener,
                  int wakeRead, int wakeWrite);
    void serve();

    SimulatedSession& session_;
    SimulatedDesktop* desktop_;
    std::filesystem::path path_;
    int listener_;
    int wakeRead_;
    int wakeWrite_;
    std::thread thread_;
};

} // namespace tavrick
