#include "Tavrick/TavrickApp.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <future>

#include "CoreKit/AppInfo.h"
#include "CoreKit/Appearance.h"
#include "CoreKit/Bundle.h"
#include "CoreKit/Directories.h"
#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/KeyCodes.h"
#include "CoreKit/Log.h"
#include "CoreKit/Toast.h"
#include "MonitorKit/ProcessFootprint.h"
#include "GestureEngine/MultitouchSource.h"
#include "Platform/Linux/EvdevTouchpadSource.h"
#include "NetKit/ExtensionFlowSource.h"
#include "NetKit/LibprocFlowSource.h"
#include "ActionKit/FileURL.h"
#include "Platform/Linux/FileSecretStore.h"
#include "Platform/Linux/GioLauncher.h"
#include "Platform/Linux/JSONPreferenceStore.h"
#include "Platform/Linux/LinuxBundle.h"
#include "Platform/Linux/LinuxDirectories.h"
#include "Platform/Linux/LinuxHostLookup.h"
#include "Platform/Linux/LinuxProcessControl.h"
#include "Platform/Linux/LinuxSystemReadings.h"
#include "Platform/Linux/ProcSocketTable.h"
#include "Platform/Linux/LinuxLidSensors.h"
#include "Platform/Linux/LinuxProcessWatcher.h"
#include "Platform/Linux/LogindPowerAssertions.h"
#include "Platform/Linux/SuspendWatcher.h"
#include "Platform/Linux/SystemInfo.h"
#include "Platform/Linux/TerminalAppearance.h"
#include "Platform/Linux/TerminalNotifications.h"
#include "Platform/Linux/TerminalToast.h"
#include "Platform/Linux/TerminationSignals.h"
#include "Platform/Linux/XdgAutostart.h"
#include "Platform/Simulated/SimulatedDesktop.h"
#include "Platform/Simulated/SessionBridge.h"
#include "Platform/Simulated/SimulatedPasteboard.h"
#include "Platform/Simulated/SimulatedSelection.h"
#include "SelectionKit/SelectionReader.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Platform/Simulated/SimulatedTrackpad.h"
#include "Platform/X11/X11Connection.h"
#include "Platform/X11/X11Desktop.h"
#include "Platform/X11/X11EventSystem.h"
#include "Tavrick/AppCoordinator.h"
#include "Tavrick/AppDelegate.h"
#include "Tavrick/CommandLine.h"
#include "Tavrick/Diagnostics.h"
#include "Tavrick/FanHost.h"

#include <cstdlib>
#include <iostream>
#include <unistd.h>

namespace tavrick {

namespace {
// Everything waits this long after launch before the engines come up, so that the menu bar item
// shows first.
constexpr double deferredStartSeconds = 3.0;

std::filesystem::path sessionSocketPath() {
    return supportDirectory() / "session.sock";
}

// A touchpad this user can read, else the trackpad service where it exists, else the simulated
// trackpad; the log says which and why.
std::shared_ptr<TouchSource> chooseTouchSource(DiagnosticLog& log, std::string& described) {
    std::string why;
    if (auto found = EvdevTouchpadSource::find(why)) {
        described = "touchpad “" + found->name + "” at " + found->path.string();
        log.note("gesture", "reading the " + described);
        return std::make_shared<EvdevTouchpadSource>(found->path);
    }
    if (std::filesystem::exists(MultitouchSource::frameworkPath)) {
        described = "the system multitouch service";
        log.note("gesture", "reading the system multitouch service");
        return std::make_shared<MultitouchSource>();
    }
    described = "the simulated trackpad (" + why + ")";
    log.note("gesture", "reading the simulated trackpad: " + why);
    return std::make_shared<SimulatedTrackpad>();
}
} // namespace

std::shared_ptr<AppCoordinator> TavrickApp::construct(AppEnvironment environment) {
    Scheduler& scheduler = environment.scheduler;
    auto coordinator = AppCoordinator::make(std::move(environment));
    AppearanceController::apply(coordinator->settings().appearance.get());
    std::weak_ptr<AppCoordinator> weak = coordinator;
    scheduler.after(deferredStartSeconds, [weak] {
        if (auto c = weak.lock()) c->start();
    });
    return coordinator;
}

namespace {

// The desktop ports over a real X server: one connection for the window and application
// requests, one of its own for the keyboard's events.
struct X11Ports {
    std::shared_ptr<X11Connection> requests;
    std::unique_ptr<X11EventSystem> events;
    std::unique_ptr<X11Desktop> desktop;
    std::string display;
};

// The X11 session when DISPLAY names a server that answers; otherwise nothing, and why.
std::optional<X11Ports> openX11(std::string& why) {
    auto requests = X11Connection::open("", &why);
    if (!requests) return std::nullopt;
    auto events = X11Connection::open(requests->displayName(), &why);
    if (!events) return std::nullopt;
    X11Ports ports;
    ports.display = requests->displayName();
    ports.requests = std::move(requests);
    ports.events = std::make_unique<X11EventSystem>(std::move(events));
    ports.desktop = std::make_unique<X11Desktop>(ports.requests, X11Desktop::defaultApplicationFolders());
    return ports;
}

} // namespace

int TavrickApp::main(int argc, char** argv) {
    // The platform's termination request arrives on the main queue. Installed before any other
    // thread exists, so that no thread but the watcher ever takes the signals.
    std::atomic<bool> terminationRequested{false};
    TerminationSignals::install([&terminationRequested](int) {
        terminationRequested = true;
        DispatchScheduler::shared().stopMain();
    });

    auto& scheduler = DispatchScheduler::shared();
    Directories::install(std::make_shared<LinuxDirectories>());
    Bundle::setMain(std::make_shared<LinuxBundle>());
    Toast::shared().setPresenter(std::make_shared<TerminalToast>());

    DiagnosticLog& log = DiagnosticLog::shared();
    AppDelegate delegate(log);
    SimulatedSession session;
    const auto mappingsFile = MappingStore::defaultFileURL();

    std::vector<std::string> arguments(argv, argv + argc);
    std::vector<std::string> problems;
    auto command = CommandLine::parse(arguments, &problems);
    for (const auto& problem : problems) Log::core.notice("%s", problem.c_str());
    std::string x11Why;
    auto x11 = openX11(x11Why);
    if (command) {
        // A diagnostic routine's own lines are its answer; the developer channel says only what
        // went wrong.
        Log::setMinimumLevel(LogLevel::error);
        Diagnostics::Context context{std::cout, scheduler, session, log, mappingsFile, sessionSocketPath(),
                                     x11 ? x11->events.get() : nullptr};
        int status = Diagnostics::run(context, *command);
        std::cout.flush();
        log.flush();
        return status;
    }

    const auto defaultsFile = JSONPreferenceStore::applicationFile();
    // One copy at a time: a second would share the first one's files and taps.
    if (SessionBridge::isListening(sessionSocketPath())) {
        std::cout << "Tavrick is already running (its session listens at " << sessionSocketPath().string() << ").\n";
        return 1;
    }

    JSONPreferenceStore defaults(defaultsFile, &log);
    // In the foreground the terminal shows what needs attention; the events themselves are in
    // the diagnostic log (tavrick --log).
    Log::setMinimumLevel(LogLevel::notice);
    // The simulated session has no layout of its own: key names fall through to the US names.
    auto layout = KeyboardLayoutCache::make(x11 ? x11->events->layoutSource() : KeyboardLayoutSource{}, scheduler);
    KeyCodes::installLayoutCache(layout);
    EventSystem& events = x11 ? static_cast<EventSystem&>(*x11->events) : session;
    std::string desktopDescription;
    if (x11) {
        desktopDescription = "the X11 session at " + x11->display;
        Log::core.notice("Windows, keys and applications: the X11 session at %s", x11->display.c_str());
        log.note("desktop", "using the X11 session at " + x11->display);
        // Without the server there is nothing to act on: the program says so and ends cleanly,
        // every grab gone with the connection.
        x11->events->setOnServerLost([&terminationRequested](const std::string& why) {
            std::cout << "Tavrick stops: " << why << ".\n" << std::flush;
            DiagnosticLog::shared().note("desktop", why + "; stopping");
            terminationRequested = true;
            DispatchScheduler::shared().stopMain();
        });
    } else {
        Log::core.notice("Windows, keys and applications: simulated (%s)", x11Why.c_str());
        log.note("desktop", "using the simulated desktop: " + x11Why);
    }

    // The desktop the actions work on. Applications, windows and displays are simulated until a
    // display server adapter exists; opening and launching go through the real desktop when there
    // is one.
    SimulatedDesktop desktop;
    SimulatedDesktop::seedDefault(desktop, static_cast<std::int32_t>(::getpid()));
    desktop.setOnPermissionsChange([&session, &desktop] { session.setTapCreationAllowed(desktop.isAccessibilityTrusted()); });
    const auto stateFile = supportDirectory() / "session-state.json";
    desktop.writeStateTo(stateFile, scheduler);
    GioLauncher gio;
    DesktopLauncher* launcher = &desktop;
    if (GioLauncher::hasDesktopSession()) {
        launcher = &gio;
        Log::core.notice("Opening, launching and revealing through the desktop session (GIO)");
    } else {
        Log::core.notice("No desktop session: opening, launching and revealing in the simulated workspace");
    }
    JSONPreferenceStore finderDefaults(JSONPreferenceStore::fileForDomain("com.apple.finder"), &log);
    std::error_code exeError;
    const auto executable = std::filesystem::read_symlink("/proc/self/exe", exeError);
    const char* homeVariable = std::getenv("HOME");

    FileSecretStore secrets(FileSecretStore::defaultFile());

    WorkspaceNotifications workspace(scheduler);
    desktop.setOnActivate([&workspace](const RunningApplication& app) {
        workspace.post({WorkspaceEvent::didActivateApplication, app.bundleIdentifier});
    });
    SuspendWatcher suspendWatcher(workspace, scheduler);
    TerminalNotifications notifications;
    // The session's pasteboard; the desktop's state file shows its change count and types, never
    // the text.
    auto pasteboard = std::make_shared<SimulatedPasteboard>();
    // The focused element of the session, which `scripts/session select` fills.
    auto selectionSource = std::make_shared<SimulatedSelection>();
    desktop.addStateSection("pasteboard", [pasteboard] { return pasteboard->stateSection(); });
    pasteboard->setOnChange([&desktop](std::int64_t, const std::vector<std::string>&) { desktop.noteStateChange(); });

    std::string touchSourceDescription;
    auto touchSource = chooseTouchSource(log, touchSourceDescription);

    // Fan control: the helper is started on demand, and the monitor reads hwmon where it can.
    FanHost fanHost(supportDirectory(), Directories::current().preferences());
    auto fanEnvironment = std::make_shared<FanEnvironment>(FanEnvironment{
        &fanHost.launcher(), fanHost.bundle(), [&fanHost, &scheduler] { return fanHost.makeClient(scheduler); },
        &fanHost.chipReader(), &fanHost.monitorReader(), &fanHost.monitorSensors()});

    LinuxSystemReadings systemReadings;
    AppEnvironment environment{
        .scheduler = scheduler,
        .log = log,
        .events = events,
        .defaults = defaults,
        .workspace = workspace,
        .notifications = notifications,
        .keyboardLayout = layout,
        .mappingsFile = mappingsFile,
        .permissionSource =
            PermissionSource{
                // X11 asks for no permission to grab keys or move windows.
                .isAccessibilityTrusted = [&desktop, real = x11.has_value()] { return real || desktop.isAccessibilityTrusted(); },
                .listenAccess = [&desktop, real = x11.has_value()] { return real ? 0 : desktop.listenAccess(); },
                .promptForAccessibility = [&desktop] { desktop.promptForAccessibility(); },
                .requestListenAccess = [&desktop] { return desktop.requestListenAccess(); },
                .openURL =
                    [launcher](const std::string& address) {
                        if (auto failure = launcher->open(URL{address})) {
                            Log::permissions.notice("Could not open %s: %s", address.c_str(), failure->c_str());
                        }
                    },
            },
        .footprint = [] { return ProcessFootprint::current(); },
        .version = AppInfo::version(),
        .build = AppInfo::build(),
        .operatingSystemVersion = SystemInfo::operatingSystemVersionString(),
        .applications = x11 ? static_cast<Workspace&>(*x11->desktop) : desktop,
        .launcher = *launcher,
        .screens = x11 ? static_cast<ScreenSource&>(*x11->desktop) : desktop,
        .windowList = x11 ? static_cast<WindowList&>(*x11->desktop) : desktop,
        .windowAccessibility = x11 ? static_cast<WindowAccessibility&>(*x11->desktop) : desktop,
        .finderDefaults = finderDefaults,
        .home = homeVariable && *homeVariable ? std::filesystem::path(homeVariable) : std::filesystem::path("/"),
        .processIdentifier = static_cast<std::int32_t>(::getpid()),
        .loginItems = XdgAutostart::service(XdgAutostart::defaultEntry(), executable,
                                            [launcher](const std::filesystem::path& folder) {
                                                if (auto url = FileURL::fromPath(folder)) launcher->open(*url);
                                            }),
        .secrets = secrets,
        .touchSource = touchSource,
        .frontmostBundleID = [&desktop, &x11]() -> std::optional<std::string> {
            auto front = x11 ? x11->desktop->frontmostApplication() : desktop.frontmostApplication();
            return front ? front->bundleIdentifier : std::nullopt;
        }(),
        // There is no filter extension on Linux: the watcher reads this user's sockets from /proc.
        .network = NetworkPorts{
            .makeSource = [&scheduler](int seconds) -> std::shared_ptr<FlowSource> {
                return LibprocFlowSource::make(seconds, std::make_shared<ProcSocketTable>(), scheduler, getpid());
            },
            .makeExtensionSource = [&scheduler, &log](int seconds) -> std::shared_ptr<FlowSource> {
                return ExtensionFlowSource::make(seconds, std::make_shared<UnsignedNetFilterLink>(), scheduler, &log);
            },
            .lookup = LinuxHostLookup::make(),
            .filterSystem = std::make_shared<AbsentFilterSystem>(Bundle::main().bundlePath().string()),
            .supportDirectory = {},
        },
        .supportDirectory = supportDirectory(),
        .pasteboard = pasteboard,
        .powerAssertions = LogindPowerAssertions::makeBest(),
        .processes = std::make_shared<LinuxProcessWatcher>(),
        .lidSensors = LinuxLidSensors::make("/"),
        // The clipboard's exclusions ask who is in front at each copy.
        .frontmostApplication = [&desktop, &x11]() -> std::optional<ClipboardSourceApp> {
            auto front = x11 ? x11->desktop->frontmostApplication() : desktop.frontmostApplication();
            if (!front) return std::nullopt;
            return ClipboardSourceApp{front->bundleIdentifier.value_or(""), front->localizedName.value_or("")};
        },
        .fans = fanEnvironment,
        .systemReadings = systemReadings.port(),
        .processControl = LinuxProcessControl::make(std::make_shared<ProcSocketTable>(), getpid(), scheduler),
        .selfPID = getpid(),
        .selectionAccessibility = selectionSource,
    };

    std::cout << "Tavrick " << AppInfo::versionString() << "\n"
              << "  log      : " << log.fileURL().string() << "\n"
              << "  mappings : " << mappingsFile.string() << "\n"
              << "  settings : " << defaultsFile.string() << "\n"
              << "  desktop  : " << (x11 ? desktopDescription : stateFile.string() + " (simulated: " + x11Why + ")") << "\n"
              << "  gestures : " << touchSourceDescription << "\n"
              << std::flush;

    AppearanceController::setApplier(std::make_shared<TerminalAppearance>(log));
    auto coordinator = construct(environment);
    auto bridge = SessionBridge::listen(session, &desktop, sessionSocketPath(), pasteboard.get());
    if (bridge) {
        std::cout << "  keys     : tavrick --post-key <keyCode> <modifiers> types into this session"
                  << (x11 ? " (through XTest)" : "") << "\n"
                  << "  copies   : echo -n <text> | scripts/session copy   puts a copy on this session's pasteboard\n"
                  << std::flush;
        std::cout << "  selection: echo -n <text> | scripts/session select selected|marker|range   selects it here;\n"
                  << "             scripts/session bar press <button id>   presses a button on the bar\n"
                  << std::flush;
        std::weak_ptr<AppCoordinator> weakCoordinator = coordinator;
        bridge->setSelectionHandler([&scheduler, &session, selectionSource, weakCoordinator](
                                        const std::string& request, const std::string& text) -> std::string {
            if (request.rfind("select ", 0) == 0) {
                auto answer = selectionSource->handleRequest(request, text);
                // The drag that made the selection, for the watcher of automatic mode.
                if (answer == "ok\n") {
                    if (auto down = session.makeMouseEvent(EventType::leftMouseDown, {100, 100}, 0)) session.post(*down);
                    if (auto up = session.makeMouseEvent(EventType::leftMouseUp, {160, 100}, 0)) session.post(*up);
                }
                return answer;
            }
            auto reply = std::make_shared<std::promise<std::string>>();
            auto future = reply->get_future();
            scheduler.async([reply, request, weakCoordinator, selectionSource] {
                auto coordinator = weakCoordinator.lock();
                if (!coordinator) return reply->set_value("error Tavrick is stopping\n");
                auto& selection = coordinator->selection();
                if (request == "bar show") {
                    // What the "Show selection bar" action does, the mode's rule included.
                    if (coordinator->settings().selectionMode.get() == SelectionMode::off)
                        return reply->set_value("error the selection bar is off in the settings\n");
                    if (coordinator->actions().onShowSelectionBar) coordinator->actions().onShowSelectionBar();
                    return reply->set_value("ok\n");
                }
                if (request.rfind("bar press ", 0) == 0) {
                    auto id = request.substr(10);
                    return reply->set_value(selection.press(id) ? "ok\n" : "error no button " + id + " on the bar\n");
                }
                if (request == "bar state") {
                    return reply->set_value("ok\n" + describeSurfaces(selection.bar(), selection.results()) + "\n");
                }
                if (request == "bar probe") {
                    return reply->set_value("ok\n" + SelectionReader::describe(*selectionSource, SelectionReader::timeout) +
                                            "\n");
                }
                reply->set_value("error the bar takes show, press <button id>, state or probe\n");
            });
            if (future.wait_for(std::chrono::seconds(3)) != std::future_status::ready)
                return "error the main queue did not answer\n";
            return future.get();
        });
        coordinator->selection().onSurfacesChanged = [weakCoordinator] {
            if (auto self = weakCoordinator.lock())
                std::cout << "  " << describeSurfaces(self->selection().bar(), self->selection().results()) << "\n"
                          << std::flush;
        };
        if (auto trackpad = std::dynamic_pointer_cast<SimulatedTrackpad>(touchSource)) {
            bridge->setTouchPlayer([trackpad](const std::filesystem::path& recording) {
                return trackpad->playRecording(recording);
            });
            std::cout << "  touches  : tavrick --play-touches <recording> plays into this trackpad\n" << std::flush;
        }
    }

    while (!terminationRequested) {
        scheduler.runMain();
    }

    if (delegate.applicationShouldTerminate() == AppDelegate::TerminateReply::now) {
        workspace.post({WorkspaceEvent::willTerminate, std::nullopt});
        delegate.applicationWillTerminate();
    }
    bridge.reset();
    desktop.setOnActivate(nullptr);
    std::cout << "Tavrick stopped.\n";
    return 0;
}

} // namespace tavrick
