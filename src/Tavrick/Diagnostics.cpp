#include "Tavrick/Diagnostics.h"

#include "Platform/X11/X11Connection.h"
#include "Platform/X11/X11EventSystem.h"
#include "Platform/X11/X11PadWindow.h"

#include "CoreKit/KeyCodes.h"
#include "CoreKit/MappingStore.h"
#include "HotkeyEngine/HotkeyEngine.h"
#include "MouseGestureKit/MouseGestureEngine.h"
#include "MouseGestureKit/RecordingPad.h"
#include "CoreKit/FileIO.h"
#include "Platform/Linux/EvdevTouchAssembler.h"
#include "Platform/Simulated/SessionBridge.h"
#include "Platform/Simulated/SimulatedSelection.h"
#include "SelectionKit/SelectionReader.h"

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

namespace tavrick::Diagnostics {

namespace {

// A number of seconds as the number it is: 15.0, 2.5, 0.0.
std::string seconds(double value) {
    char buffer[64];
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, error == std::errc() ? end : buffer);
    if (text.find_first_of(".en") == std::string::npos) text += ".0";
    return text;
}

// Runs the main loop for up to `limit` seconds, a little at a time, until `done` says so.
void pump(DispatchScheduler& scheduler, double limit, const std::function<bool()>& done) {
    const double step = 0.05;
    for (double waited = 0; waited < limit; waited += step) {
        scheduler.runMainFor(step);
        if (done()) return;
    }
}

} // namespace

int notAvailableAndExit(std::ostream& out, DiagnosticFlag flag) {
    out << CommandLine::spelling(flag) << " is not available in this build yet.\n";
    return 2;
}

int printLogAndExit(Context& context) {
    const std::string text = context.log.contents();
    if (text.empty()) {
        context.out << "The log is empty. Path: " << context.log.fileURL().string() << "\n";
    } else {
        context.out << text;
    }
    return 0;
}

int postKeyAndExit(Context& context, std::uint16_t keyCode, std::int64_t modifiers) {
    const std::string combination = Modifiers(modifiers).symbolString() + KeyCodes::name(keyCode);
    const std::string what =
        "keyCode=" + std::to_string(keyCode) + " modifiers=" + std::to_string(modifiers) + " (" + combination + ")";
    if (context.x11) {
        // On X11 the key goes through XTest; a running Tavrick hears it through its grabs.
        if (!context.x11->postKeyPress(keyCode, Modifiers(modifiers).cgFlags()) || !context.x11->sync()) {
            context.out << "could not synthesise the event\n";
            return 1;
        }
        context.out << "posted " << what << " to the X11 session through XTest\n";
        return 0;
    }
    // A running Tavrick hears it through its taps, like a key the user pressed.
    auto failure = SessionBridge::sendKey(context.sessionSocket, keyCode, modifiers);
    if (!failure) {
        context.out << "posted " << what << " to the running Tavrick's session\n";
        return 0;
    }
    // Nobody is listening: the key goes through this process's own session, which has no taps.
    if (!context.session.postKeyPress(keyCode, Modifiers(modifiers).cgFlags())) {
        context.out << "could not synthesise the event\n";
        return 1;
    }
    context.session.drain();
    context.out << "posted " << what << " (" << *failure << ", so it went straight to the frontmost application)\n";
    return 0;
}

int runTapSelfTestAndExit(Context& context) {
    auto& out = context.out;
    const HotkeySpec expected{1, Modifiers::option};
    out << "Hotkey self-test\n";
    out << "expecting: keyCode=" << expected.keyCode << " modifiers=" << expected.modifiers.rawValue << "\n";

    EventSystem& events = context.x11 ? static_cast<EventSystem&>(*context.x11) : context.session;
    out << "session: " << (context.x11 ? "X11" : "simulated") << "\n";
    HotkeyEngine engine(events, context.scheduler, context.log);
    Mapping mapping;
    mapping.id = UUID::random();
    mapping.name = "Self-test ⌥S";
    mapping.trigger = Trigger::hotkey(expected);
    mapping.action = ActionSpec::toggleAwake();
    engine.update({mapping});

    struct Seen {
        std::uint16_t keyCode;
        Modifiers modifiers;
    };
    std::mutex mutex;
    std::vector<Seen> seen;
    std::atomic<int> fired{0};
    engine.setObserveKeys([&](std::uint16_t keyCode, Modifiers modifiers, bool) {
        std::lock_guard lock(mutex);
        seen.push_back({keyCode, modifiers});
    });
    engine.setOnTrigger([&](const Mapping&) { ++fired; });

    try {
        engine.start();
    } catch (const std::exception& error) {
        out << "✗ tap did not start: " << error.what() << "\n";
        return 1;
    }
    out << "tap started; engine.isRunning = " << (engine.isRunning() ? "true" : "false") << "\n";

    out << "posting a synthetic ⌥S …\n";
    if (!events.postKeyPress(expected.keyCode, expected.modifiers.cgFlags())) {
        out << "✗ could not synthesise the event\n";
        engine.stop();
        return 1;
    }
    if (context.x11) {
        context.x11->sync();
    } else {
        context.session.drain();
    }
    pump(context.scheduler, 2.0, [&] { return fired.load() > 0; });
    engine.stop();

    std::vector<Seen> keys;
    {
        std::lock_guard lock(mutex);
        keys = seen;
    }
    out << "keys seen by tap : " << keys.size() << "\n";
    out << "matches fired    : " << fired.load() << "\n";
    for (const auto& key : keys) {
        out << "    tap saw: keyCode=" << key.keyCode << " modifiers=" << key.modifiers.rawValue << "\n";
    }
    if (keys.empty()) {
        out << "✗ The tap received NOTHING. It was created but is not in the event\n"
               "  stream — a run-loop or thread problem, not a matching problem.\n";
        return 1;
    }
    if (fired.load() == 0) {
        out << "✗ The tap receives keys but the match failed — compare the\n"
               "  keyCode/modifiers above with the expected values.\n";
        return 1;
    }
    out << "✓ End to end: the tap received the key and fired the mapping.\n";
    return 0;
}

int runTapProbeAndExit(Context& context, double listenSeconds) {
    auto& out = context.out;
    // A look from outside: the user's file is read as it stands and never seeded, moved or written.
    std::string failure;
    const auto mappings = MappingStore::readWithoutChanges(context.mappingsFile, failure).value_or(std::vector<Mapping>{});
    // Keys are told by the same engine, and table, that the application uses.
    EventSystem& events = context.x11 ? static_cast<EventSystem&>(*context.x11) : context.session;
    HotkeyEngine engine(events, context.scheduler, context.log);
    engine.update(mappings);
    const auto entries = engine.table().count();
    out << mappings.size() << " mapping(s) from disk\n";
    if (!failure.empty()) out << "  (" << failure << ")\n";
    out << "Hotkey table has " << entries << "\n";
    if (entries == 0) {
        out << "\n⚠︎  No enabled keyboard shortcuts — nothing could fire.\n";
        return 1;
    }

    DispatchScheduler* scheduler = &context.scheduler;
    std::ostream* output = &out;
    engine.setOnTrigger([scheduler, output](const Mapping& mapping) {
        scheduler->async([output, name = mapping.effectiveName()] {
            *output << "  ★ MATCHED → " << name << "\n" << std::flush;
        });
    });
    try {
        engine.start();
    } catch (const std::exception& error) {
        out << "\n✗ Could not start the tap: " << error.what() << "\n";
        return 1;
    }
    // Keys reach a simulated session from other processes through the bridge; an X11 one hears
    // the keyboard itself.
    auto bridge = context.x11 ? nullptr : SessionBridge::listen(context.session, context.sessionSocket);
    out << "\nPress your shortcuts now — listening for " << seconds(listenSeconds) << "\n";
    if (bridge) {
        out << "  (this session is simulated: from another terminal, tavrick --post-key <keyCode> <modifiers>)\n";
    }
    out << std::flush;
    context.scheduler.runMainFor(listenSeconds);
    engine.stop();
    return 0;
}

bool postRightDrag(EventSystem& events, Point from, Point to, int steps) {
    std::vector<Event> drag;
    auto down = events.makeMouseEvent(EventType::rightMouseDown, from, 1);
    if (!down) return false;
    drag.push_back(*down);
    for (int step = 1; step <= steps; ++step) {
        const double t = static_cast<double>(step) / steps;
        auto moved = events.makeMouseEvent(EventType::rightMouseDragged,
                                           Point{from.x + (to.x - from.x) * t, from.y + (to.y - from.y) * t}, 1);
        if (!moved) return false;
        drag.push_back(*moved);
    }
    auto up = events.makeMouseEvent(EventType::rightMouseUp, to, 1);
    if (!up) return false;
    drag.push_back(*up);
    for (const auto& event : drag) events.post(event);
    return true;
}

int runMouseRecorderSelfTestAndExit(Context& context) {
    auto& out = context.out;
    out << "Mouse recorder self-test\n";

    // The pad is the application in front: it reads whatever right-button events reach it. On X11
    // it is a real window of this program's under the drag, reached the way any window is.
    RecordingPad pad;
    const Point from{400, 300}, to{520, 300};
    std::unique_ptr<X11PadWindow> padWindow;
    if (context.x11) {
        std::string why;
        auto connection = X11Connection::open("", &why);
        if (connection) {
            padWindow = X11PadWindow::open(std::move(connection), XRect{300, 200, 400, 300},
                                           [&pad](const Event& event) { pad.handle(event); }, &why);
        }
        if (!padWindow) {
            out << "✗ could not open the pad window: " << why << "\n";
            return 1;
        }
    } else {
        context.session.setOnDeliver([&pad](const Event& event) { pad.handle(event); });
    }
    struct Detach {
        SimulatedSession& session;
        ~Detach() { session.setOnDeliver(nullptr); }
    } detach{context.session};

    EventSystem& events = context.x11 ? static_cast<EventSystem&>(*context.x11) : context.session;
    MouseGestureEngine engine(events, context.scheduler);
    std::mutex mutex;
    std::vector<std::string> notes;
    engine.setOnNote([&](const std::string& text) {
        std::lock_guard lock(mutex);
        notes.push_back(text);
    });
    // A shape the drag below does not draw, so that the engine has a reason to watch.
    Mapping mapping;
    mapping.id = UUID::random();
    mapping.name = "Self-test ↑←";
    mapping.trigger = Trigger::mouseGesture(MouseGestureSpec{{GestureDirection::up, GestureDirection::left}});
    mapping.action = ActionSpec::toggleAwake();
    engine.setMasterEnabled(true);
    engine.update({mapping});
    if (!engine.isRunning()) {
        std::lock_guard lock(mutex);
        for (const auto& note : notes) out << "  " << note << "\n";
        out << "✗ the tap never started, so this proves nothing about routing.\n"
               "  Grant Accessibility, quit any other copy, and run it again.\n";
        return 1;
    }

    auto drawOnce = [&]() -> std::optional<std::vector<GestureDirection>> {
        pad.clear();
        if (!postRightDrag(events, from, to)) return std::nullopt;
        if (context.x11) {
            // The press, the drag and whatever the engine gives back travel through the server: the
            // pad has its answer once a whole click or drag reached it.
            if (!context.x11->sync()) return std::nullopt;
            pump(context.scheduler, 2.0, [&] { return !pad.heard().empty(); });
            padWindow->sync();
        } else {
            context.session.drain();
        }
        std::vector<GestureDirection> strokes;
        for (const auto& drag : pad.heard()) strokes.insert(strokes.end(), drag.begin(), drag.end());
        return strokes;
    };

    engine.setSuspended(true);
    const auto standingDown = drawOnce();
    engine.setSuspended(false);
    const auto watching = standingDown ? drawOnce() : std::nullopt;
    engine.stop();
    if (!standingDown || !watching) {
        out << "✗ could not synthesise the event\n";
        return 1;
    }
    out << "standing down — pad heard: " << RecordingPad::describe(*standingDown) << "\n";
    out << "watching      — pad heard: " << RecordingPad::describe(*watching) << "\n";

    const std::vector<GestureDirection> expected{GestureDirection::right};
    if (*standingDown != expected) {
        out << "✗ Standing down, the pad did NOT read the drag. Expected [right].\n"
               "  Either the suspension is not reaching the tap, or something\n"
               "  else in the session is swallowing right-button events.\n";
        return 1;
    }
    if (!watching->empty()) {
        out << "✗ Watching, the pad still read " << RecordingPad::describe(*watching) << "\n"
            << "  not holding the press, so this build cannot reproduce the bug\n"
               "  and the result above proves less than it appears to.\n";
        return 1;
    }
    out << "✓ Standing down, the pad reads the drag. Watching, the tap takes it\n"
           "  first — which is what made a second gesture impossible to add.\n";
    return 0;
}

int playTouchesAndExit(Context& context, const std::filesystem::path& recording) {
    auto& out = context.out;
    // Read here first, so that a bad file is told in this terminal, not only in the other one.
    int error = 0;
    auto text = FileIO::readAll(recording, error);
    if (!text) {
        out << "✗ cannot read " << recording.string() << ": " << std::strerror(error) << "\n";
        return 1;
    }
    std::size_t frames = 0;
    try {
        frames = TouchpadRecording::parse(*text).frames().size();
    } catch (const std::exception& failure) {
        out << "✗ " << failure.what() << "\n";
        return 1;
    }
    std::error_code ignored;
    auto answer = SessionBridge::sendTouches(context.sessionSocket, std::filesystem::absolute(recording, ignored));
    if (auto* failure = std::get_if<std::string>(&answer)) {
        out << "✗ " << frames << " frame(s) not played: " << *failure << "\n";
        return 1;
    }
    out << "played " << std::get<std::size_t>(answer) << " frame(s) of " << recording.filename().string()
        << " into the running Tavrick's trackpad\n";
    return 0;
}

int postStrokeAndExit(Context& context, const std::string& strokes) {
    auto failure = SessionBridge::sendStroke(context.sessionSocket, strokes);
    if (failure) {
        context.out << "✗ could not draw “" << strokes << "”: " << *failure << "\n";
        return 1;
    }
    context.out << "drew “" << strokes << "” with the right button in the running Tavrick's session\n";
    return 0;
}

int probeSelectionAndExit(Context& context, double after) {
    context.out << "Switch to the app and select some text. Probing in " << seconds(after) << " seconds.\n" << std::flush;
    pump(context.scheduler, after, [] { return false; });
    // The focused element lives in the running Tavrick's session; without one, this process's
    // own session has nothing focused.
    if (SessionBridge::isListening(context.sessionSocket)) {
        auto answer = SessionBridge::exchange(context.sessionSocket, "bar probe");
        if (auto* text = std::get_if<0>(&answer); text && text->rfind("ok\n", 0) == 0) {
            context.out << text->substr(3);
            return 0;
        }
        context.out << "✗ the running Tavrick did not describe its selection: "
                    << (answer.index() == 1 ? std::get<1>(answer) : std::get<0>(answer)) << "\n";
        return 1;
    }
    SimulatedSelection own;
    context.out << SelectionReader::describe(own, SelectionReader::timeout) << "\n";
    return 0;
}

int run(Context& context, const DiagnosticCommand& command) {
    switch (command.flag) {
    case DiagnosticFlag::diagnose: return runAndExit(context);
    case DiagnosticFlag::renderIcons: return renderIconsAndExit(context, command.folder);
    case DiagnosticFlag::postKey: return postKeyAndExit(context, command.keyCode, command.modifiers);
    case DiagnosticFlag::log: return printLogAndExit(context);
    case DiagnosticFlag::tapSelfTest: return runTapSelfTestAndExit(context);
    case DiagnosticFlag::tapProbe: return runTapProbeAndExit(context, command.seconds);
    case DiagnosticFlag::mouseRecorderSelfTest: return runMouseRecorderSelfTestAndExit(context);
    case DiagnosticFlag::playTouches: return playTouchesAndExit(context, command.file);
    case DiagnosticFlag::postStroke: return postStrokeAndExit(context, command.strokes);
    case DiagnosticFlag::fanProbe: return runFanProbeAndExit(context, command.boostSeconds, command.release);
    case DiagnosticFlag::systemReport: return systemReportAndExit(context);
    case DiagnosticFlag::stopServer: return stopServerAndExit(context, command.pid, command.force);
    case DiagnosticFlag::devReport: {
        const char* home = std::getenv("HOME");
        return devReportAndExit(context, home ? home : "");
    }
    case DiagnosticFlag::vaultSelfTest: return runVaultSelfTestAndExit(context);
    case DiagnosticFlag::touchIDProbe: return runTouchIDProbeAndExit(context);
    case DiagnosticFlag::probeSelection: return probeSelectionAndExit(context, command.seconds);
    default: return notAvailableAndExit(context.out, command.flag);
    }
}

} // namespace tavrick::Diagnostics
