#include "DevToolsKit/ManagedPathBlock.h"
#include "DevToolsKit/PathAdvice.h"
#include "DevToolsKit/PathDoctor.h"
#include "MonitorKit/ByteFormat.h"
#include "MonitorKit/LocalServerMonitor.h"
#include "MonitorKit/SystemMonitor.h"
#include "Platform/Linux/LinuxProcessControl.h"
#include "Platform/Linux/LinuxShellRunner.h"
#include "Platform/Linux/LinuxSystemReadings.h"
#include "Platform/Linux/ProcSocketTable.h"
#include "Tavrick/Diagnostics.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace tavrick::Diagnostics {

namespace {

std::string homeFolder() {
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    if (auto* entry = getpwuid(getuid())) return entry->pw_dir;
    return "/";
}

std::string portsText(const std::vector<std::uint16_t>& ports) {
    std::string text;
    for (auto port : ports) text += (text.empty() ? "" : ", ") + std::to_string(port);
    return text;
}

const char* kindWord(StopOutcome::Kind kind) {
    switch (kind) {
    case StopOutcome::Kind::stopped: return "stopped";
    case StopOutcome::Kind::alreadyGone: return "already gone";
    case StopOutcome::Kind::refusedIdentityChanged: return "refused";
    case StopOutcome::Kind::notPermitted: return "not stopped";
    case StopOutcome::Kind::ignored: return "ignored";
    case StopOutcome::Kind::cameBack: return "came back";
    }
    return "";
}

} // namespace

int systemReportAndExit(Context& context) {
    auto& out = context.out;
    LinuxSystemReadings readings;
    if (auto memory = readings.memory()) {
        out << "memory   : " << ByteFormat::compact(memory->used) << " used of " << ByteFormat::compact(memory->total)
            << " (app " << ByteFormat::compact(memory->app) << ", wired " << ByteFormat::compact(memory->wired)
            << ", compressed " << ByteFormat::compact(memory->compressed) << ", available "
            << ByteFormat::compact(memory->available) << ")\n";
    } else {
        out << "memory   : unreadable\n";
    }
    auto pressure = readings.pressure();
    out << "pressure : " << (pressure == MemoryPressure::normal ? "normal" : pressure == MemoryPressure::warning ? "warning" : "critical")
        << " — " << explanation(pressure) << "\n";
    if (auto swap = readings.swap()) {
        out << "swap     : " << ByteFormat::compact(swap->used) << " used of " << ByteFormat::compact(swap->total) << "\n";
    }
    auto power = readings.power();
    out << "power    : " << PowerFormat::summary(power).value_or("no battery or adapter reported");
    if (power.chargePercent) out << ", battery " << *power.chargePercent << "%";
    if (power.batteryCelsius) out << ", " << PowerFormat::celsius(*power.batteryCelsius);
    if (power.adapterWatts) out << ", adapter " << *power.adapterWatts << " W";
    out << ", thermal " << PowerFormat::thermal(power.thermalState) << "\n";
    if (auto disk = readings.disk()) {
        out << "disk     : " << ByteFormat::compact(disk->available) << " available of " << ByteFormat::compact(disk->total) << "\n";
    }
    out << "biggest  :\n";
    for (const auto& hog : readings.hogs(10)) {
        out << "  " << hog.pid << "  " << ByteFormat::compact(hog.footprint) << "  " << hog.name
            << (hog.isQuittable ? "" : "  (not offered to quit)") << "\n";
    }

    ProcessControl control = LinuxProcessControl::make(std::make_shared<ProcSocketTable>(), getpid(), context.scheduler);
    auto servers = control.listening();
    out << "servers  :" << (servers.empty() ? " none listening\n" : "\n");
    for (const auto& server : servers) {
        out << "  " << server.pid << "  " << LocalServerMonitor::kind(server.name, server.ports) << "  " << server.name
            << "  port" << (server.ports.size() == 1 ? " " : "s ") << portsText(server.ports) << "\n";
    }

    const auto home = homeFolder();
    const auto shell = LinuxShellRunner::loginShell();
    auto path = PathDoctor::loginShellPath(LinuxShellRunner::run, shell, 5.0, &context.log);
    out << "path     : " << PathTexts::heading << " (" << shell << ")\n";
    if (!path) {
        out << "  the login shell gave no search path; see tavrick --log\n";
        return 1;
    }
    auto disk = livePathDisk();
    auto managedText = disk.read(ManagedPathBlock::profileURL(home).string());
    auto managedList = managedText ? ManagedPathBlock::folders(*managedText) : std::vector<std::string>{};
    auto entries = PathDoctor::withFacts(PathDoctor::entries(*path, PathDoctor::declarations(home, disk), disk.exists),
                                         {managedList.begin(), managedList.end()}, home, disk);
    for (const auto& entry : entries) {
        auto advice = PathAdvice::advise(entry, home);
        out << "  " << (PathAdvice::isProblem(advice) ? "! " : "  ") << entry.path << "  — " << entry.sourceLabel() << "\n"
            << "      " << advice.why << "\n";
    }
    return 0;
}

int stopServerAndExit(Context& context, std::int32_t pid, bool force) {
    auto& out = context.out;
    auto monitor = LocalServerMonitor::make(
        LinuxProcessControl::make(std::make_shared<ProcSocketTable>(), getpid(), context.scheduler), getpid(), &context.log);
    monitor->refresh();
    const auto& servers = monitor->servers().get();
    auto row = std::find_if(servers.begin(), servers.end(), [pid](const LocalServer& s) { return s.pid == pid; });
    if (row == servers.end()) {
        out << "No process of yours with pid " << pid << " is listening on a TCP port.\n";
        return 1;
    }
    const LocalServer server = *row;
    out << "Stopping " << server.name << " (pid " << pid << ", port" << (server.ports.size() == 1 ? " " : "s ")
        << portsText(server.ports) << ")…\n";
    std::optional<StopOutcome> result;
    auto report = [&](const StopOutcome& outcome) {
        out << kindWord(outcome.kind) << ": " << outcome.message << "\n";
        if (outcome.detail) out << "  " << *outcome.detail << "\n";
        result = outcome;
    };
    auto wait = [&] {
        const double limit = monitor->pollAttempts * monitor->pollInterval + monitor->restartDelay + 5;
        for (double waited = 0; waited < limit && !result; waited += 0.05) context.scheduler.runMainFor(0.05);
    };
    monitor->stop(server, report);
    wait();
    if (result && result->kind == StopOutcome::Kind::ignored && force) {
        result.reset();
        monitor->forceStop(server, report);
        wait();
    }
    context.log.flush();
    if (!result) return 1;
    return result->kind == StopOutcome::Kind::stopped || result->kind == StopOutcome::Kind::alreadyGone ? 0 : 1;
}

} // namespace tavrick::Diagnostics
