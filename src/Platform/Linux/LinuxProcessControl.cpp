#include "Platform/Linux/LinuxProcessControl.h"

#include "CoreKit/FileIO.h"
#include "NetCore/Flow.h"

#include <cerrno>
#include <csignal>
#include <unistd.h>

namespace tavrick::LinuxProcessControl {

std::optional<ProcessControl::Identity> identity(std::int32_t pid, const std::filesystem::path& procRoot) {
    if (pid <= 0) return std::nullopt;
    const auto dir = procRoot / std::to_string(pid);
    int error = 0;
    auto statText = FileIO::readAll(dir / "stat", error);
    if (!statText) return std::nullopt;
    auto stat = ProcNet::parseStat(*statText);
    if (!stat || stat->state == 'Z' || stat->state == 'X') return std::nullopt;
    auto procStat = FileIO::readAll(procRoot / "stat", error);
    auto boot = procStat ? ProcNet::parseBootTime(*procStat) : std::nullopt;
    if (!boot) return std::nullopt;
    ProcessControl::Identity result;
    result.startedAt = ProcNet::startedAt(*boot, stat->startTicks, sysconf(_SC_CLK_TCK));
    std::optional<std::string> name;
    if (auto cmdline = FileIO::readAll(dir / "cmdline", error)) name = ProcNet::argumentZero(*cmdline);
    if (!name) {
        std::error_code code;
        auto exe = std::filesystem::read_symlink(dir / "exe", code);
        if (!code) name = ProcessIdentity::lastComponent(exe.string());
    }
    result.name = name.value_or(stat->name);
    return result;
}

ProcessControl make(std::shared_ptr<SocketTableReader> reader, std::int32_t selfPID, Scheduler& scheduler) {
    return ProcessControl{
        .signal = [](std::int32_t pid, int signo) { return pid > 0 ? ::kill(pid, signo) : -1; },
        .errnoValue = [] { return errno; },
        .identity = [](std::int32_t pid) { return identity(pid); },
        .listening = [reader, selfPID] { return listening(reader->scan(selfPID, {FlowState::listening}), selfPID); },
        .wait = [&scheduler](double seconds, std::function<void()> then) { scheduler.after(seconds, std::move(then)); },
    };
}

} // namespace tavrick::LinuxProcessControl
