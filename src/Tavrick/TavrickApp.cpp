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
#include "Platform/DBus/DBusNotifications.h"
#include "Platform/DBus/DesktopBus.h"
#include "Platform/DBus/SecretServiceStore.h"
#include "Platform/DBus/StatusNotifierItem.h"
#include "Platform/Linux/JSONPreferenceStore.h"
#include "Platform/Linux/LinuxBundle.h"
#include "Platform/Linux/LinuxDirectories.h"
#include "Platform/Linux/LinuxHostLookup.h"
#include "Platform/Linux/LinuxProcessControl.h"
#include "Platform/Linux/LinuxSystemReadings.h"
#include "Platform/Linux/ProcSocketTable.h"
#include "Platform/Linux/LinuxLidSensors.h"
#include "Platform/Linux/LinuxProcessWatcher.h"
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
#include "Platform/Simulated/SimulatedSnapPreview.h"
#include "Platform/Simulated/SimulatedTrackpad.h"
#include "Platform/Terminal/TerminalMenu.h"
#include "Platform/X11/X11Connection.h"
#include "Platform/X11/X11ActivationWatcher.h"
#include "Platform/X11/X11Desktop.h"
#include "Platform/X11/X11EventSystem.h"
#include "Platform/X11/X11SnapPreview.h"
#include "Platform/X11/X11Pasteboard.h"
#include "Tavrick/AppCoordinator.h"
#include "Tavrick/AppDelegate.h"
#include "Tavrick/BackupCommand.h"
#include "Tavrick/CommandLine.h"
#include "Tavrick/Diagnostics.h"
#include "Tavrick/FanHost.h"
#include "Tavrick/MenuBarContent.h"

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
    // The clipboard, on a connection of its own; nothing, with why, when the server cannot offer it.
    std::shared_ptr<X11Pasteboard> pasteboard;
    std::string pasteboardWhy;
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
    if (auto clipboard = X11Connection::open(ports.display, &ports.pasteboardWhy)) {
        ports.pasteboard = X11Pasteboard::open(std::move(clipboard), X11Pasteboard::Limits{}, &ports.pasteboardWhy);
    }
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
    auto terminalToasts = std::make_shared<TerminalToast>();
    Toast::shared().setPresenter(terminalToasts);

    DiagnosticLog& log = DiagnosticLog::shared();
    AppDelegate delegate(log);
    SimulatedSession session;
    const auto mappingsFile = MappingStore::defaultFileURL();

    std::vector<std::string> arguments(argv, argv + argc);
    std::vector<std::string> problems;
    auto command = CommandLine::parse(arguments, &problems);
    auto backup = command ? std::nullopt : BackupCommand::parse(arguments, &problems);
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
    // One copy at a time: a second would share the first one's files and taps. Writing a backup
    // only reads them; a restore would be written over by the running copy.
    if (SessionBridge::isListening(sessionSocketPath()) &&
        (!backup || backup->kind == BackupCommand::Request::Kind::importBackup)) {
        std::cout << "Tavrick is already running (its session listens at " << sessionSocketPath().string() << ").\n";
        return 1;
    }

    JSONPreferenceStore defaults(defaultsFile, &log);
    // In the foreground the terminal shows what needs attention; the events themselves are in
    // the diagnostic log (tavrick --log).
    Log::setMinimumLevel(backup ? LogLevel::error : LogLevel::notice);
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
    // The desktop's buses: tray, notifications, keychain, inhibitors and reveal where offered.
    auto desktopBus = DesktopBus::open([&log](const std::string& line) {
        Log::core.notice("Desktop bus: %s", line.c_str());
        log.note("desktop", line);
    });
    GioLauncher gio;
    DesktopLauncher* launcher = &desktop;
    std::unique_ptr<DesktopLauncher> fileManager;
    if (GioLauncher::hasDesktopSession()) {
        launcher = &gio;
        Log::core.notice("Opening, launching and revealing through the desktop session (GIO)");
        if ((fileManager = desktopBus->fileManager(gio))) launcher = fileManager.get();
    } else {
        Log::core.notice("No desktop session: opening, launching and revealing in the simulated workspace");
    }
    JSONPreferenceStore finderDefaults(JSONPreferenceStore::fileForDomain("com.apple.finder"), &log);
    std::error_code exeError;
    const auto executable = std::filesystem::read_symlink("/proc/self/exe", exeError);
    const char* homeVariable = std::getenv("HOME");

    FileSecretStore fileSecrets(FileSecretStore::defaultFile());
    auto secretService = desktopBus->secretService();
    SecretStore& secrets = secretService ? *secretService : static_cast<SecretStore&>(fileSecrets);
    log.note("launch", secretService ? "keychain: the Secret Service (org.freedesktop.secrets) on the session bus"
                                     : "keychain: " + fileSecrets.file().string() + " (no Secret Service on the session bus)");
    if (secretService) {
        // Records kept in the file by earlier runs move over once; the file itself stays.
        if (auto added = secretService->importFrom(fileSecrets); added && *added > 0) {
            log.note("launch", "keychain: copied " + std::to_string(*added) + " records from " + fileSecrets.file().filename().string() +
                                   " to the Secret Service; the file is unchanged");
        }
    }

    WorkspaceNotifications workspace(scheduler);
    desktop.setOnActivate([&workspace](const RunningApplication& app) {
        workspace.post({WorkspaceEvent::didActivateApplication, app.bundleIdentifier});
    });
    SuspendWatcher suspendWatcher(workspace, scheduler);
    // On X11 the window manager's active window tells which application came to the front; the
    // watcher's thread asks who that is and posts only when the application changed.
    std::unique_ptr<X11ActivationWatcher> activationWatcher;
    if (x11) {
        std::string why;
        if (auto connection = X11Connection::open(x11->display, &why)) {
            activationWatcher = std::make_unique<X11ActivationWatcher>(
                std::move(connection), [&workspace, desktop = x11->desktop.get(), lastPID = std::int32_t{-1}]() mutable {
                    auto front = desktop->frontmostApplication();
                    if (!front || front->processIdentifier == lastPID) return;
                    lastPID = front->processIdentifier;
                    workspace.post({WorkspaceEvent::didActivateApplication, front->bundleIdentifier});
                });
        } else {
            Log::core.notice("Activations are not heard: %s", why.c_str());
        }
    }
    TerminalNotifications terminalNotices;
    auto desktopNotices = desktopBus->notifications(terminalNotices, *terminalToasts);
    if (desktopNotices) Toast::shared().setPresenter(desktopNotices);
    UserNotificationCenter& notifications = desktopNotices ? *desktopNotices : static_cast<UserNotificationCenter&>(terminalNotices);
    // The session's pasteboard; the desktop's state file shows its change count and types, never
    // the text.
    auto pasteboard = std::make_shared<SimulatedPasteboard>();
    std::shared_ptr<Pasteboard> clipboard = pasteboard;
    if (x11 && x11->pasteboard) {
        clipboard = x11->pasteboard;
        Log::core.notice("Clipboard: the X11 CLIPBOARD selection at %s", x11->display.c_str());
    } else if (x11) {
        Log::core.notice("Clipboard: simulated (%s)", x11->pasteboardWhy.c_str());
    }
    // The focused element of the session, which `scripts/session select` fills.
    auto selectionSource = std::make_shared<SimulatedSelection>();
    desktop.addStateSection("pasteboard", [pasteboard] { return pasteboard->stateSection(); });
    pasteboard->setOnChange([&desktop](std::int64_t, const std::vector<std::string>&) { desktop.noteStateChange(); });
    // The snap preview: a real override-redirect window on X11, otherwise recorded in the state file.
    auto snapPreview = SimulatedSnapPreview::make();
    desktop.addStateSection("snapPreview", [snapPreview] { return snapPreview->stateSection(); });
    snapPreview->setOnChange([&desktop] { desktop.noteStateChange(); });
    SnapPreviewWindow::SurfaceFactory snapSurface = [snapPreview] { return snapPreview->makeSurface(); };
    if (x11) {
        snapSurface = [requests = x11->requests, screens = x11->desktop.get()]() -> std::unique_ptr<SnapPreviewSurface> {
            return std::make_unique<X11SnapPreview>(requests, [screens] {
                auto monitors = screens->monitors();
                return monitors.empty() ? XRect{} : monitors.front();
            });
        };
    }

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
        .pasteboard = clipboard,
        .powerAssertions = desktopBus->inhibitors(),
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
        .snapPreviewSurface = snapSurface,
        .listApplications = [&desktop, &x11] { return x11 ? x11->desktop->allApplications() : desktop.allApplications(); },
        .selectionAccessibility = selectionSource,
    };

    if (backup) {
        // The stores as the program would hold them, without starting any engine.
        Log::setMinimumLevel(LogLevel::error);
        auto coordinator = AppCoordinator::make(environment);
        BackupCommand::Console console{
            BackupCommand::readSecretLine,
            [&scheduler](const std::function<bool()>& finished) {
                while (!finished()) scheduler.runMainFor(0.05);
            },
            std::cout};
        const int status = BackupCommand::run(*coordinator, *backup, console);
        coordinator->notepad().flush();
        std::cout.flush();
        log.flush();
        return status;
    }

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
                  << (clipboard == pasteboard
                          ? "  copies   : echo -n <text> | scripts/session copy   puts a copy on this session's pasteboard\n"
                          : "  copies   : the X11 clipboard (CLIPBOARD)\n")
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

    // The menu: in this terminal once the engines are up, when there is a terminal to draw in.
    auto requestQuit = [&terminationRequested] {
        terminationRequested = true;
        DispatchScheduler::shared().stopMain();
    };
    MenuBarContent menuContent(*coordinator);
    // The tray face draws the same menu as the terminal one, where a desktop bus offers a tray.
    auto tray = desktopBus->tray(scheduler);
    if (tray) {
        tray->setSource(&menuContent);
        tray->start();
    }
    // The terminal menu's settings and vault stand for windows; while one is in view the program
    // counts as a full application, which this desktop can only note.
    TerminalActivationPolicy activationPolicy(log);
    AppWindows windows(delegate);
    delegate.applicationDidFinishLaunching(scheduler, activationPolicy, [&windows] { return windows.visible(); });
    // The welcome is a line on how to use the menu, shown once it is up and then never again; a
    // run without a terminal leaves it for the first run with one.
    bool welcomePending = false;
    coordinator->showWelcome = [&welcomePending] { welcomePending = true; };
    auto welcome = [&] {
        if (!welcomePending) return;
        welcomePending = false;
        // The welcome stays until the first move in the menu.
        windows.show(WindowIdentifier::welcome, "Welcome to Tavrick");
        Toast::shared().show("Welcome to Tavrick", Toast::Kind::done,
                             "Arrows and Enter choose, each line has a letter, Esc goes back, q quits");
        coordinator->settings().hasCompletedWelcome.set(true);
    };
    menuContent.onQuit = requestQuit;
    std::unique_ptr<TerminalMenu> terminalMenu;
    auto menuOpening = scheduler.after(deferredStartSeconds, [&] {
        std::string why;
        terminalMenu = TerminalMenu::open(menuContent, scheduler, &why);
        if (!terminalMenu) {
            log.note("menu", "no terminal menu: " + why);
            return;
        }
        log.note("menu", "terminal menu open");
        terminalMenu->onQuit = requestQuit;
        terminalMenu->onMove = [&windows](const std::vector<std::string>& path, const std::string& cursor) {
            windows.sync(terminalWindows(path, cursor));
        };
        TerminalMenu* menu = terminalMenu.get();
        // While the menu owns the screen, what would be printed goes to its status lines.
        Log::setSink([menu](LogLevel, std::string_view category, std::string_view message) {
            menu->post("[" + std::string(category) + "] " + std::string(message));
        });
        struct MenuToasts final : Toast::Presenter {
            TerminalMenu* menu;
            explicit MenuToasts(TerminalMenu* m) : menu(m) {}
            void present(const std::string& title, Toast::Kind kind, const std::optional<std::string>& detail) override {
                menu->post(TerminalToast::line(title, kind, detail));
            }
        };
        // Toasts and notices go to the desktop's notifications where a server shows them, else to
        // the menu's status lines.
        if (!desktopNotices) Toast::shared().setPresenter(std::make_shared<MenuToasts>(menu));
        terminalNotices.setLineSink([menu](const std::string& line) { menu->post(line); });
        TerminationSignals::setBeforeImmediateExit(&TerminalMenu::restoreTerminalFromSignal);
        coordinator->presentSettings = [menu] { menu->reveal({"settings"}); };
        welcome();
    });

    while (!terminationRequested) {
        scheduler.runMain();
    }

    menuOpening.cancel();
    if (terminalMenu) {
        TerminationSignals::setBeforeImmediateExit(nullptr);
        Log::setSink(nullptr);
        if (!desktopNotices) Toast::shared().setPresenter(terminalToasts);
        terminalNotices.setLineSink(nullptr);
        coordinator->presentSettings = nullptr;
        coordinator->showWelcome = nullptr;
        terminalMenu.reset();
        log.note("menu", "terminal menu closed");
    }

    if (delegate.applicationShouldTerminate() == AppDelegate::TerminateReply::now) {
        workspace.post({WorkspaceEvent::willTerminate, std::nullopt});
        delegate.applicationWillTerminate();
    }
    bridge.reset();
    tray.reset();
    Toast::shared().setPresenter(terminalToasts);
    desktop.setOnActivate(nullptr);
    std::cout << "Tavrick stopped.\n";
    return 0;
}

} // namespace tavrick
