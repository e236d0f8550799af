#pragma once

#include "Platform/Simulated/SimulatedPasteboard.h"
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
// The protocol is one line a request, "key <keyCode> <modifiers>\n", answered with "ok\n" or
// "error <reason>\n". A copy is "copy [<type>...]\n" followed by the copied text up to the end
// of the client's half of the connection; it puts the text (when there is any) and the extra
// types on the session's pasteboard as one change, and is answered "ok <changeCount>\n".
class SessionBridge {
public:
    // Starts listening; nothing (and a log line) when the socket cannot be made. A stale socket
    // left by a killed run is replaced; a live one (another copy running) is left alone.
    static std::unique_ptr<SessionBridge> listen(SimulatedSession& session, std::filesystem::path socketPath,
                                                 SimulatedPasteboard* pasteboard = nullptr);
    // The most a copy may carry through the bridge.
    static constexpr std::size_t maximumCopyBytes = 64 * 1024 * 1024;
    ~SessionBridge();
    SessionBridge(const SessionBridge&) = delete;
    SessionBridge& operator=(const SessionBridge&) = delete;

    const std::filesystem::path& path() const { return path_; }

    // Sends one key press to whichever process listens at `socketPath`. Nothing on success,
    // otherwise the reason.
    static std::optional<std::string> sendKey(const std::filesystem::path& socketPath, std::uint16_t keyCode,
                                              std::int64_t modifiers);

    // Copies `text` with `types` besides plain text into the pasteboard of the process listening at
    // `socketPath`. Nothing on success, otherwise the reason.
    static std::optional<std::string> sendCopy(const std::filesystem::path& socketPath, const std::string& text,
                                               const std::vector<std::string>& types = {});
    static std::string handleCopy(SimulatedPasteboard* pasteboard, const std::string& request, std::string text);

    // Whether a live process listens at `socketPath`: a running copy of Tavrick.
    static bool isListening(const std::filesystem::path& socketPath);

    // Handles one request line, posting into `session`; returns the answer line.
    static std::string handle(SimulatedSession& session, const std::string& request);

private:
    SessionBridge(SimulatedSession& session, SimulatedPasteboard* pasteboard, std::filesystem::path path, int listener,
                  int wakeRead, int wakeWrite);
    void serve();

    SimulatedSession& session_;
    SimulatedPasteboard* pasteboard_;
    std::filesystem::path path_;
    int listener_;
    int wakeRead_;
    int wakeWrite_;
    std::thread thread_;
};

} // namespace tavrick
