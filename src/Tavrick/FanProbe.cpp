#include "CoreKit/AppInfo.h"
#include "CoreKit/Directories.h"
#include "FanKit/FanMonitor.h"
#include "Platform/Linux/FanHelperSocket.h"
#include "Tavrick/DiagnosticReport.h"
#include "Tavrick/Diagnostics.h"
#include "Tavrick/FanHost.h"

#include <chrono>
#include <csignal>
#include <ctime>
#include <sstream>
#include <thread>

namespace tavrick::Diagnostics {

namespace Reply = FanHelperReply;

namespace {

std::string fanList(const std::vector<int>& fans) {
    std::string out;
    for (int f : fans) out += (out.empty() ? "" : ", ") + std::to_string(f);
    return out.empty() ? "none" : out;
}

std::string helloFields(const Reply::Hello& hello) {
    return std::to_string(hello.protocolVersion) + ", build " + hello.build + ", cdhash " + hello.cdhash.value_or("–");
}

std::string statusFields(const Reply::Status& s) {
    return std::string("state ") + std::string(FanHelperReply::rawValue(s.state)) + ", controlling " +
           (s.controlling ? "yes" : "no") + ", clients " + std::to_string(s.clients);
}

std::string clockTime(double at) {
    std::time_t t = static_cast<std::time_t>(at);
    std::tm local{};
    localtime_r(&t, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
    return stamp;
}

void printHelperStatus(std::ostream& out, FanHelperClient& client) {
    auto outcome = client.statusBlockingResult();
    if (auto* failure = std::get_if<FanHelperFailure>(&outcome)) {
        out << "helper status  : FAILED — " << failure->text() << "\n";
        return;
    }
    const auto& s = std::get<Reply::Status>(outcome);
    out << "helper status  : " << s.sensorCount << " sensors, hottest "
        << (s.hottestDie ? FanFormat::degrees(*s.hottestDie) : std::string("–"))
        << (s.recoveredOrphan ? ", recovered a boost an earlier run left" : "") << "\n";
    out << "                 set by Tavrick: " << (s.setByTavrick ? fanList(*s.setByTavrick) : "not reported by this helper") << "\n";
    if (s.lastRelease) {
        out << "                 let go at " << clockTime(s.lastRelease->at) << " (" << s.lastRelease->reasonName() << ")\n";
    } else {
        out << "                 let go: nothing recorded since this helper last took the fans\n";
    }
}

std::vector<FanReading> readFans(SMCReader& reader) {
    try {
        reader.open();
        return FanKeys::readFans(reader, FanKeys::discover(reader));
    } catch (const SMCError&) {
        return {};
    }
}

bool allMacOS(const std::vector<FanReading>& fans) {
    std::vector<std::optional<int>> modes;
    for (const auto& f : fans) modes.push_back(f.mode);
    return FanPolicy::isHandedBack(modes);
}

} // namespace

int runFanProbeAndExit(Context& context, std::optional<double> boostSeconds, bool release) {
    auto& out = context.out;
    FanHost host(supportDirectory(), Directories::current().preferences());
    auto& reader = host.chipReader();
    out << "Tavrick fan probe\n";
    out << "version        : " << AppInfo::versionString() << "\n";
    out << "SMC layout     : " << SMCLayout::summary() << "\n";
    FanLayout layout;
    try {
        reader.open();
        layout = FanKeys::discover(reader);
        if (layout.isFanless()) {
            out << "Fans           : none\n";
        } else {
            out << "Fans           : " << layout.fanCount << " (0 automatic, 1 manual, 3 system)\n";
            try {
                for (const auto& f : FanKeys::readFans(reader, layout)) out << FanFormat::probeLine(f) << "\n";
            } catch (const SMCError& error) {
                out << "  fans could not be read — " << error.what() << "\n";
            }
        }
        out << "Ftst           : " << (layout.hasFtst ? "present" : "absent") << "\n";
    } catch (const SMCError& error) {
        out << "SMC            : could not be read — " << error.what() << "\n";
    }
    std::vector<double> celsius;
    for (const auto& t : host.chipSensors().read()) celsius.push_back(t.celsius);
    auto summary = ThermalFilter::summarize(celsius);
    out << "Die sensors    : " << summary.validCount << " plausible, hottest "
        << (summary.hottest ? FanFormat::degrees(*summary.hottest) : std::string("–")) << "\n";
    out << "Fan helper     : " << describeFanHelper(host.launcher().status()) << "\n";
    if (host.readsRealHardware()) out << "(the menu's readings come from this machine's hwmon; the probe reads the simulated controller the helper writes)\n";

    const auto& bundle = host.bundle();
    if (!bundle) {
        out << "→ This copy cannot talk to the helper. That takes a Developer ID signature\n"
            << "  and the helper in Contents/MacOS, so boost is only in the installed app.\n";
        return 1;
    }
    out << "bundled helper : build " << bundle->appBuild << "\n";
    // The probe never registers the helper; it starts it for its own questions when none runs,
    // and stops the one it started when it is done.
    const bool wasRunning = FanHelperSocket::isListening(host.launcher().paths().socket);
    host.launcher().allowUnregisteredStart(true);
    auto client = host.makeClient(context.scheduler);
    auto finish = [&](int status) {
        client->invalidate();
        if (!wasRunning) {
            if (auto pid = host.launcher().runningPid()) ::kill(*pid, SIGTERM);
        }
        out << std::flush;
        return status;
    };
    auto hello = client->helloBlockingResult(FanHelperClient::respawnDeadline);
    if (auto* failure = std::get_if<FanHelperFailure>(&hello)) {
        out << "helper hello   : FAILED — " << failure->text() << "\n"
            << "→ The helper is not running. Choose Boost 25%, Boost 50% or Max in the app to\n"
            << "  install and allow it; this probe never registers it.\n";
        return finish(1);
    }
    out << "helper hello   : protocol " << helloFields(std::get<Reply::Hello>(hello)) << "\n";
    printHelperStatus(out, *client);

    if (release) {
        out << "\nHanding back every fan in manual mode, including ones Tavrick has no record of setting.\n"
            << "This is what “Hand Back Anyway” sends. It parks each fan on the\n"
            << "safety curve, writes mode 0, and reads back; another app that is still running may\n"
            << "set the fans again, and quitting it is the fix that lasts.\n";
        auto result = client->releaseUnrecordedFansBlockingResult();
        if (auto* failure = std::get_if<FanHelperFailure>(&result)) {
            out << "\nwrote          : nothing — the call FAILED: " << failure->text() << "\n";
        } else {
            const auto& r = std::get<Reply::ReleaseResult>(result);
            out << "\nwrote          : park then mode 0 on fan " << fanList(r.fans) << "\n";
            if (r.unrecorded && !r.unrecorded->empty()) out << "                 of which Tavrick had no record of: " << fanList(*r.unrecorded) << "\n";
        }
        const bool ok = allMacOS(readFans(reader));
        out << (ok ? "✓ Every fan reads automatic (0) or system (3) again.\n" : "✗ A fan still does not read as macOS's.\n");
        return finish(ok ? 0 : 1);
    }
    if (!boostSeconds) return finish(0);

    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%g", *boostSeconds);
    out << "\nAsking for Max for " << seconds << " s over one connection…\n" << std::flush;
    auto applied = client->applyBlocking(FanRequest::max());
    if (auto* failure = std::get_if<FanHelperFailure>(&applied)) {
        out << "  FAILED — " << failure->text() << "\n";
    } else {
        const auto& a = std::get<Reply::ApplyResult>(applied);
        if (a.accepted) {
            out << "  accepted, helper " << statusFields(a.status) << "\n";
        } else {
            out << "  refused — " << (a.reason ? std::string(tavrick::rawValue(*a.reason)) : std::string("no reason")) << "\n";
        }
        std::vector<std::string> last;
        const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(*boostSeconds);
        while (std::chrono::steady_clock::now() < until) {
            std::vector<std::string> lines;
            for (const auto& f : readFans(reader)) lines.push_back(FanFormat::probeLine(f));
            if (lines != last) {
                for (const auto& line : lines) out << line << "\n";
                out << std::flush;
                last = lines;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
    }
    out << "\nHanding back…\n" << std::flush;
    client->handBackBlockingResult();
    const double wait = FanPolicy::releaseAttempts * FanPolicy::releaseRetryGap + 5.0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(wait);
    bool ok = false;
    while (!(ok = allMacOS(readFans(reader))) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (ok) {
        out << "✓ Every fan reads automatic (0) or system (3) again.\n";
    } else {
        std::snprintf(seconds, sizeof seconds, "%g s", wait);
        out << "✗ The fans did not read back as macOS's within " << seconds << "\n";
    }
    return finish(ok ? 0 : 1);
}

} // namespace tavrick::Diagnostics
