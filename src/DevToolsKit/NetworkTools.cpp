#include "DevToolsKit/NetworkTools.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <signal.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace tavrick {

namespace fs = std::filesystem;

const char* displayName(NetworkTool tool) {
    switch (tool) {
    case NetworkTool::ping: return "Ping";
    case NetworkTool::traceroute: return "Trace Route";
    case NetworkTool::lookup: return "DNS Lookup";
    }
    return "Ping";
}

const char* executable(NetworkTool tool) {
    switch (tool) {
    case NetworkTool::ping: return "/sbin/ping";
    case NetworkTool::traceroute: return "/usr/sbin/traceroute";
    case NetworkTool::lookup: return "/usr/bin/dig";
    }
    return "/sbin/ping";
}

const char* note(NetworkTool tool) {
    switch (tool) {
    case NetworkTool::ping: return "Five packets, then it stops.";
    case NetworkTool::traceroute: return "Fifteen hops at most, one probe each.";
    case NetworkTool::lookup: return "What DNS answers for that name right now.";
    }
    return "";
}

namespace NetworkTools {
std::vector<std::string> arguments(NetworkTool tool, const std::string& host) {
    std::vector<std::string> out;
    switch (tool) {
    // Linux's ping limits the whole run with -w; its -t is the hop limit.
    case NetworkTool::ping: out = {"-c", "5", "-w", "10"}; break;
    case NetworkTool::traceroute: out = {"-m", "15", "-q", "1"}; break;
    case NetworkTool::lookup: out = {"+time=3", "+tries=1"}; break;
    }
    out.push_back(host);
    return out;
}
} // namespace NetworkTools

namespace Hostname {
bool isValid(std::string_view text) {
    auto start = text.find_first_not_of(" \t\r\n");
    if (start == std::string_view::npos) return false;
    auto end = text.find_last_not_of(" \t\r\n");
    text = text.substr(start, end - start + 1);
    if (text.size() > 253 || text.front() == '-') return false;
    constexpr std::string_view allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-:";
    return text.find_first_not_of(allowed) == std::string_view::npos;
}
} // namespace Hostname

namespace {
std::string secondsText(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}
std::string trimmedHost(const std::string& host) {
    auto start = host.find_first_not_of(" \t\r\n");
    auto end = host.find_last_not_of(" \t\r\n");
    return start == std::string::npos ? std::string() : host.substr(start, end - start + 1);
}
} // namespace

std::string ToolRun::run(NetworkTool tool, const std::string& host, double timeout) {
    if (!Hostname::isValid(host)) return "“" + host + "” is not a hostname or an address.";
    auto program = lookup_ ? lookup_(executable(tool)) : std::nullopt;
    if (!program) return std::string(executable(tool)) + " is not on this Mac.";
    std::uint64_t mine;
    {
        std::lock_guard guard(lock_);
        // One run at a time: the one before ends here.
        if (running_ > 0) ::kill(-running_, SIGTERM);
        mine = ++generation_;
        running_ = 0;
    }
    auto result = runToolProcess(*program, NetworkTools::arguments(tool, trimmedHost(host)), timeout, {},
                                 [this, mine](int pid) {
                                     std::lock_guard guard(lock_);
                                     if (generation_ == mine) {
                                         running_ = pid;
                                     } else {
                                         ::kill(-pid, SIGTERM);
                                     }
                                 });
    {
        std::lock_guard guard(lock_);
        if (generation_ == mine) running_ = 0;
    }
    if (result.failedToStart) return std::string("Could not run ") + displayName(tool);
    std::string output = result.output;
    if (result.timedOut) output += "\n— stopped after " + secondsText(timeout) + "s";
    if (output.empty()) return std::string(displayName(tool)) + " said nothing.";
    return output;
}

void ToolRun::cancel() {
    std::lock_guard guard(lock_);
    if (running_ > 0) ::kill(-running_, SIGTERM);
    running_ = 0;
    ++generation_;
}

std::vector<std::pair<std::string, std::string>> NetworkFacts::interfaceAddresses() {
    std::vector<std::pair<std::string, std::string>> out;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return out;
    for (ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || !(entry->ifa_flags & IFF_UP) || (entry->ifa_flags & IFF_LOOPBACK)) continue;
        char text[INET6_ADDRSTRLEN] = {};
        if (entry->ifa_addr->sa_family == AF_INET) {
            ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(entry->ifa_addr)->sin_addr, text, sizeof text);
        } else if (entry->ifa_addr->sa_family == AF_INET6) {
            ::inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(entry->ifa_addr)->sin6_addr, text, sizeof text);
        } else {
            continue;
        }
        out.emplace_back(entry->ifa_name, text);
    }
    ::freeifaddrs(list);
    return out;
}

std::optional<std::string> NetworkFacts::parseRouter(std::string_view routeTable) {
    std::istringstream lines{std::string(routeTable)};
    std::string line;
    std::getline(lines, line);  // the column names
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string interface, destination, gateway, flags;
        if (!(fields >> interface >> destination >> gateway >> flags)) continue;
        if (destination != "00000000" || gateway == "00000000") continue;
        // The kernel writes the address in host order as hexadecimal.
        unsigned long value = std::stoul(gateway, nullptr, 16);
        in_addr address{};
        address.s_addr = static_cast<in_addr_t>(value);
        char text[INET_ADDRSTRLEN] = {};
        ::inet_ntop(AF_INET, &address, text, sizeof text);
        return std::string(text);
    }
    return std::nullopt;
}

std::vector<std::string> NetworkFacts::parseNameServers(std::string_view configuration) {
    std::vector<std::string> out;
    std::istringstream lines{std::string(configuration)};
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string word, address;
        if (fields >> word >> address && word == "nameserver") out.push_back(address);
    }
    return out;
}

NetworkFacts NetworkFacts::read(const fs::path& routeTable, const fs::path& resolverConfiguration) {
    auto text = [](const fs::path& path) {
        std::ifstream in(path);
        std::stringstream buffer;
        buffer << in.rdbuf();
        return buffer.str();
    };
    NetworkFacts facts;
    facts.addresses = interfaceAddresses();
    try {
        facts.router = parseRouter(text(routeTable));
    } catch (const std::exception&) {
        facts.router = std::nullopt;
    }
    facts.dnsServers = parseNameServers(text(resolverConfiguration));
    return facts;
}

namespace DNSCache {

Result flush(const ProgramLookup& lookup, DiagnosticLog& log, double timeout) {
    auto program = lookup ? lookup("resolvectl") : std::nullopt;
    if (!program) {
        std::string why = "resolvectl is not on this system, so there is no resolver cache to flush";
        log.note("network", "DNS flush failed: " + why);
        return {Result::Kind::failed, why};
    }
    auto result = runToolProcess(*program, {"flush-caches"}, timeout);
    if (!result.failedToStart && !result.timedOut && result.status == 0) {
        log.note("network", "DNS cache flushed");
        return {Result::Kind::flushed, {}};
    }
    std::string why = result.failedToStart ? result.startError
                      : result.timedOut    ? "it did not answer in time"
                                           : result.output;
    while (!why.empty() && (why.back() == '\n' || why.back() == ' ')) why.pop_back();
    if (why.empty()) why = "status " + std::to_string(result.status);
    // An authentication prompt the user dismissed.
    if (why.find("-128") != std::string::npos || why.find("cancelled") != std::string::npos) {
        log.note("network", "DNS flush cancelled at the password prompt");
        return {Result::Kind::cancelled, why};
    }
    log.note("network", "DNS flush failed: " + why);
    return {Result::Kind::failed, why};
}

} // namespace DNSCache

} // namespace tavrick
