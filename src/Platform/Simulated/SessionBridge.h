#pragma once

#include "Platform/Simulated/SimulatedDesktop.h"
#include "Platform/Simulated/SimulatedPasteboard.h"
#include "Platform/Simulated/SimulatedSession.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <variant>
#include <optional>
#include <string>
#include <thread>

namespace tavrick {

// Lets another process type into this process's simulated session, the way a second program on
// a real desktop posts keys that every tap sees. The running application listens on a Unix socket
// in its support directory; `tavrick --post-key` from another terminal connects and sends a key
// press, which then travels through the application's taps like a key the user pressed.
//
// The protocol is one line a request, answered with "ok\n" (or "ok <frames>\n" for touches,
// "ok <changeCount>\n" for a copy) or "error <reason>\n":
//   key <keyCode> <modifiers>                     a key press through the taps
//   touches <path>                                plays a touchpad recording into the simulated trackpad
//   stroke <directions>                           a right-button stroke: up to three of up, down, left
//                                                 and right joined by commas, or "click"
//   permission <accessibility|inputMonitoring> <granted|denied|notDetermined>
//   activate <bundle id>                          brings a running application to the front
//   drag <fromX> <fromY> <toX> <toY>              a left-button drag, in the state file's coordinates (origin
//                                                 bottom-left, y up); pressed on the title bar (the top 28
//                                                 points) of the window in front, it moves the window
//   copy [<type>...]                              followed by the copied text up to the end of the
//                                                 client's half of the connection: the text (when there
//                                                 is any) and the extra types go on the pasteboard as
//                                                 one change
//   select <route> [x y w h]                      followed by the selected text up to the end of the
//                                                 client's half: what the focused element publishes
//                                                 (route: selected, marker, range, none, refusing,
//                                                 unfocused), then a mouse drag over it
//   bar <show|press <button id>|state|probe>      the selection bar: look now, press a button, or
//                                                 describe it; answered with "ok" and lines after it
// Permission, activate and drag need the simulated desktop, copy the simulated pasteboard.
class SessionBridge {
public:
    // Starts listening; nothing (and a log line) when the socket cannot be made. A stale socket
    // left by a killed run is replaced; a live one (another copy running) is left alone.
    static std::unique_ptr<SessionBridge> listen(SimulatedSession& session, std::filesystem::path socketPath);
    static std::unique_ptr<SessionBridge> listen(SimulatedSession& session, SimulatedDesktop* desktop,
                                                 std::filesystem::path socketPath,
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
    // Sends one request line (without its newline). Nothing on success, otherwise the reason.
    static std::optional<std::string> send(const std::filesystem::path& socketPath, const std::string& request);

    // How tall the title bar of a simulated window is: a press there drags the window.
    static constexpr double titleBarHeight = 28;
    // A left-button drag from `from` to `to` in `steps` even moves, each followed by `settle` (which
    // lets whoever listens catch up, as a hand is slower than a loop). Pressed on the title bar of
    // the frontmost window, the window follows the pointer. False, and nothing posted, when the
    // events cannot be made.
    static bool postWindowDrag(SimulatedSession& session, SimulatedDesktop& desktop, Point from, Point to, int steps,
                               const std::function<void()>& settle);

    // Sends one right-button stroke ("up,left", or "click"). Nothing on success, otherwise the reason.
    static std::optional<std::string> sendStroke(const std::filesystem::path& socketPath, const std::string& strokes);
    // The right-button drag of a stroke text, posted into `session`; false when the text is not
    // one or the events cannot be made.
    static bool postStroke(EventSystem& session, const std::string& strokes);

    // Asks whoever listens at `socketPath` to play the touchpad recording at `recording`. The
    // number of frames played, or the reason it did not happen.
    static std::variant<std::size_t, std::string> sendTouches(const std::filesystem::path& socketPath,
                                                              const std::filesystem::path& recording);
    // Answers "touches" requests; without it they are refused. Set before requests arrive.
    using TouchPlayer = std::function<std::string(const std::filesystem::path& recording)>;
    void setTouchPlayer(TouchPlayer player);

    // Copies `text` with `types` besides plain text into the pasteboard of the process listening at
    // `socketPath`. Nothing on success, otherwise the reason.
    static std::optional<std::string> sendCopy(const std::filesystem::path& socketPath, const std::string& text,
                                               const std::vector<std::string>& types = {});
    static std::string handleCopy(SimulatedPasteboard* pasteboard, const std::string& request, std::string text);

    // Answers "select" (with the text that followed the line) and "bar" requests; without it they
    // are refused. Set before requests arrive.
    using SelectionHandler = std::function<std::string(const std::string& request, const std::string& text)>;
    void setSelectionHandler(SelectionHandler handler);
    // Sends one request and, for "select", the text after it; the whole answer, or why there is none.
    static std::variant<std::string, std::string> exchange(const std::filesystem::path& socketPath,
                                                           const std::string& request,
                                                           const std::optional<std::string>& text = std::nullopt);

    // Whether a live process listens at `socketPath`: a running copy of Tavrick.
    static bool isListening(const std::filesystem::path& socketPath);

    // Handles one request line, posting into `session`; returns the answer line.
    static std::string handle(SimulatedSession& session, const std::string& request);
    static std::string handle(SimulatedSession& session, SimulatedDesktop* desktop, const std::string& request);

private:
    SessionBridge(SimulatedSession& session, SimulatedDesktop* desktop, SimulatedPasteboard* pasteboard,
                  std::filesystem::path path, int listener,
                  int wakeRead, int wakeWrite);
    void serve();

    SimulatedSession& session_;
    SimulatedDesktop* desktop_;
    SimulatedPasteboard* pasteboard_;
    std::filesystem::path path_;
    int listener_;
    int wakeRead_;
    int wakeWrite_;
    std::thread thread_;
    std::mutex playerLock_;
    TouchPlayer touchPlayer_;
    SelectionHandler selectionHandler_;
};

} // namespace tavrick
