#include "Tavrick/TavrickApp.h"

#include "CoreKit/AppInfo.h"
#include "CoreKit/Bundle.h"
#include "CoreKit/Directories.h"
#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/KeyCodes.h"
#include "CoreKit/Log.h"
#include "CoreKit/Toast.h"
#include "MonitorKit/ProcessFootprint.h"
#include "ActionKit/FileURL.h"
#include "Platform/Linux/FileSecretStore.h"
#include "Platform/Linux/GioLauncher.h"
#include "Platform/Linux/JSONPreferenceStore.h"
#include "Platform/Linux/LinuxBundle.h"
#include "Platform/Linux/LinuxDirectories.h"
#include "Platform/Linux/SuspendWatcher.h"
#include "Platform/Linux/SystemInfo.h"
#include "Platform/Linux/TerminalNotifications.h"
#include "Platform/Linux/TerminalToast.h"
#include "Platform/Linux/TerminationSignals.h"
#include "Platform/Linux/XdgAutostart.h"
#include "Platform/Simulated/SimulatedDesktop.h"
#include "Platform/Simulated/SessionBridge.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Tavrick/AppCoordinator.h"
#include "Tavrick/AppDelegate.h"
#include "Tavrick/CommandLine.h"
#include "Tavrick/Diagnostics.h"

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
    if (command) {
        // A diagnostic routine's own lines are its answer; the developer channel says only what
        // went wrong.
        Log::setMinimumLevel(LogLevel::error);
        Diagnostics::Context context{std::cout, scheduler, session, log, mappingsFile, sessionSocketPath()};
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
    auto layout = KeyboardLayoutCache::make(KeyboardLayoutSource{}, scheduler);
    KeyCodes::installLayoutCache(layout);

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

    AppEnvironment environment{
        .scheduler = scheduler,
        .log = log,
        .events = session,
        .defaults = defaults,
        .workspace = workspace,
        .notifications = notifications,
        .keyboardLayout = layout,
        .mappingsFile = mappingsFile,
        .permissionSource =
            PermissionSource{
                .isAccessibilityTrusted = [&desktop] { return desktop.isAccessibilityTrusted(); },
                .listenAccess = [&desktop] { return desktop.listenAccess(); },
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
        .applications = desktop,
        .launcher = *launcher,
        .screens = desktop,
        .windowList = desktop,
        .windowAccessibility = desktop,
        .finderDefaults = finderDefaults,
        .home = homeVariable && *homeVariable ? std::filesystem::path(homeVariable) : std::filesystem::path("/"),
        .processIdentifier = static_cast<std::int32_t>(::getpid()),
        .loginItems = XdgAutostart::service(XdgAutostart::defaultEntry(), executable,
                                            [launcher](const std::filesystem::path& folder) {
                                                if (auto url = FileURL::fromPath(folder)) launcher->open(*url);
                                            }),
        .secrets = secrets,
    };

    std::cout << "Tavrick " << AppInfo::versionString() << "\n"
              << "  log      : " << log.fileURL().string() << "\n"
              << "  mappings : " << mappingsFile.string() << "\n"
              << "  settings : " << defaultsFile.string() << "\n"
              << "  desktop  : " << stateFile.string() << "\n"
              << std::flush;

    auto coordinator = AppCoordinator::make(environment);
    auto bridge = SessionBridge::listen(session, &desktop, sessionSocketPath());
    if (bridge) {
        std::cout << "  keys     : tavrick --post-key <keyCode> <modifiers> types into this session\n" << std::flush;
    }

    std::weak_ptr<AppCoordinator> weak = coordinator;
    scheduler.after(deferredStartSeconds, [weak] {
        if (auto c = weak.lock()) c->start();
    });

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
