#include "Tavrick/TavrickApp.h"

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
#include "Platform/Linux/JSONPreferenceStore.h"
#include "Platform/Linux/LinuxBundle.h"
#include "Platform/Linux/LinuxDirectories.h"
#include "Platform/Linux/LinuxHostLookup.h"
#include "Platform/Linux/LinuxProcessControl.h"
#include "Platform/Linux/LinuxSystemReadings.h"
#include "Platform/Linux/ProcSocketTable.h"
#include "Platform/Linux/SuspendWatcher.h"
#include "Platform/Linux/SystemInfo.h"
#include "Platform/Linux/TerminalAppearance.h"
#include "Platform/Linux/TerminalNotifications.h"
#include "Platform/Linux/TerminalToast.h"
#include "Platform/Linux/TerminationSignals.h"
#include "Platform/Simulated/SessionBridge.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Platform/Simulated/SimulatedTrackpad.h"
#include "Tavrick/AppCoordinator.h"
#include "Tavrick/AppDelegate.h"
#include "Tavrick/CommandLine.h"
#include "Tavrick/Diagnostics.h"

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

    WorkspaceNotifications workspace(scheduler);
    SuspendWatcher suspendWatcher(workspace, scheduler);
    TerminalNotifications notifications;

    std::string touchSourceDescription;
    auto touchSource = chooseTouchSource(log, touchSourceDescription);

    LinuxSystemReadings systemReadings;
    AppEnvironment environment{
        .scheduler = scheduler,
        .log = log,
        .events = session,
        .defaults = defaults,
        .workspace = workspace,
        .notifications = notifications,
        .keyboardLayout = layout,
        .mappingsFile = mappingsFile,
        // The simulated session's taps stand for both permissions.
        .permissionSource = PermissionSource{[&session] { return session.isTapCreationAllowed(); },
                                             [&session] { return session.isTapCreationAllowed() ? 0 : 1; }},
        .footprint = [] { return ProcessFootprint::current(); },
        .version = AppInfo::version(),
        .build = AppInfo::build(),
        .operatingSystemVersion = SystemInfo::operatingSystemVersionString(),
        .touchSource = touchSource,
        .frontmostBundleID = std::nullopt,
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
        .systemReadings = systemReadings.port(),
        .processControl = LinuxProcessControl::make(std::make_shared<ProcSocketTable>(), getpid(), scheduler),
        .selfPID = getpid(),
    };

    std::cout << "Tavrick " << AppInfo::versionString() << "\n"
              << "  log      : " << log.fileURL().string() << "\n"
              << "  mappings : " << mappingsFile.string() << "\n"
              << "  settings : " << defaultsFile.string() << "\n"
              << "  gestures : " << touchSourceDescription << "\n"
              << std::flush;

    AppearanceController::setApplier(std::make_shared<TerminalAppearance>(log));
    auto coordinator = construct(environment);
    auto bridge = SessionBridge::listen(session, sessionSocketPath());
    if (bridge) {
        std::cout << "  keys     : tavrick --post-key <keyCode> <modifiers> types into this session\n" << std::flush;
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
    std::cout << "Tavrick stopped.\n";
    return 0;
}

} // namespace tavrick
