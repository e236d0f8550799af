// tavrick-fanhelper: the only process that writes to the fan controller. Started on demand by
// the application; it hands every fan back when its last client goes or when it is told to stop.
#include "FanCore/FanJournal.h"
#include "FanHelper/FanHelperCore.h"
#include "FanHelper/FanHelperServer.h"
#include "Platform/Simulated/SimulatedSMC.h"
#include "SigningCore/CodeIdentity.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <thread>

#ifndef TAVRICK_BUILD
#define TAVRICK_BUILD "1"
#endif

namespace {
std::atomic<bool> stopRequested{false};
void onSignal(int) { stopRequested = true; }

int usage() {
    std::cerr << "usage: tavrick-fanhelper --socket PATH --smc PATH --journal PATH --allow-client SHA256...\n";
    return 64;
}
} // namespace

int main(int argc, char** argv) {
    using namespace tavrick;
    std::filesystem::path socket, smc, journalPath;
    FanHelperServer::Options options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
        if (arg == "--socket") socket = value();
        else if (arg == "--smc") smc = value();
        else if (arg == "--journal") journalPath = value();
        else if (arg == "--allow-client") options.allowedClients.insert(value());
        else if (arg == "--silent-timeout") options.silentClientTimeout = std::atof(value().c_str());
        else return usage();
    }
    if (socket.empty() || smc.empty() || journalPath.empty()) return usage();
    options.socketPath = socket;

    struct sigaction action {};
    action.sa_handler = onSignal;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    try {
        SimulatedSMC chip(smc);
        auto driver = chip.driver();
        auto source = chip.sensors();
        SMCReader reader(*driver);
        ThermalSensors sensors(*source);
        FanJournal journal(journalPath);
        FanHelperCore core({reader, sensors, journal, TAVRICK_BUILD, CodeIdentity::ownCDHash(),
                            [](double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); },
                            [](const std::string& line) { std::fprintf(stderr, "fanhelper: %s\n", line.c_str()); }});
        const double now = std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
        const double wall = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
        core.start(now, wall);
        // The watchdog has its own connection to the controller, so a tick stuck in the main
        // one does not hold it up.
        SimulatedSMC watchdogChip(smc);
        auto watchdogDriver = watchdogChip.driver();
        SMCReader watchdogReader(*watchdogDriver);
        options.emergency = [&watchdogReader, &journal] { FanHelperCore::emergencyHandBack(watchdogReader, journal); };
        FanHelperServer server(core, options);
        return server.run(stopRequested);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fanhelper: %s\n", error.what());
        return 1;
    }
}
