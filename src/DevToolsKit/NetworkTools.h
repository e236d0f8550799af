#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "DevToolsKit/DiskReclaimProcess.h"

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavrick {

enum class NetworkTool { ping, traceroute, lookup };

const char* displayName(NetworkTool tool);
// Where the tool is asked for; the program lookup finds this system's copy.
const char* executable(NetworkTool tool);
const char* note(NetworkTool tool);

namespace NetworkTools {
// The options first, then the host, so the host can never be read as an option.
std::vector<std::string> arguments(NetworkTool tool, const std::string& host);
} // namespace NetworkTools

namespace Hostname {
bool isValid(std::string_view text);
}

// One network tool at a time: a new run ends the one before it. `run` blocks its caller (a
// background queue); `cancel` may come from any thread.
class ToolRun {
public:
    explicit ToolRun(ProgramLookup lookup) : lookup_(std::move(lookup)) {}
    std::string run(NetworkTool tool, const std::string& host, double timeout);
    void cancel();

private:
    ProgramLookup lookup_;
    std::mutex lock_;
    int running_ = 0;
    std::uint64_t generation_ = 0;
};

struct NetworkFacts {
    std::vector<std::pair<std::string, std::string>> addresses;
    std::optional<std::string> router;
    std::vector<std::string> dnsServers;

    // Interfaces that are up, loopback left out, with their IPv4 and IPv6 addresses.
    static std::vector<std::pair<std::string, std::string>> interfaceAddresses();
    // The default route's gateway from the kernel's route table, the name servers from the
    // resolver's configuration.
    static NetworkFacts read(const std::filesystem::path& routeTable = "/proc/net/route",
                             const std::filesystem::path& resolverConfiguration = "/etc/resolv.conf");
    static std::optional<std::string> parseRouter(std::string_view routeTable);
    static std::vector<std::string> parseNameServers(std::string_view resolverConfiguration);
};

namespace DNSCache {

struct Result {
    enum class Kind { flushed, cancelled, failed };
    Kind kind = Kind::failed;
    std::string failure;
    friend bool operator==(const Result&, const Result&) = default;
};

// Through `resolvectl flush-caches`, where the resolver service runs.
Result flush(const ProgramLookup& lookup, DiagnosticLog& log, double timeout = 10.0);

} // namespace DNSCache

} // namespace tavrick
