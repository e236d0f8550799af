#include "Tavrick/Diagnostics.h"

#include "DevToolsKit/DeveloperIdentity.h"
#include "DevToolsKit/DiskReclaim.h"
#include "DevToolsKit/NetworkTools.h"
#include "MonitorKit/ByteFormat.h"

#include <cstdlib>

namespace tavrick::Diagnostics {

int devReportAndExit(Context& context, const std::filesystem::path& home) {
    auto& out = context.out;
    if (home.empty() || !home.is_absolute()) {
        out << "✗ HOME is not set to a folder, so there is no home to look at\n";
        return 1;
    }
    auto lookup = lookupByPathOrName(ToolRunner::fallbackPath(home));
    out << "Caches Tavrick may empty (allocated bytes):\n";
    std::uint64_t total = 0;
    for (const auto& row : Reclaimable::all()) {
        auto size = DiskReclaim::size(row.url(home));
        if (!size) continue;
        total += *size;
        out << "  " << row.title << "  " << *size << " bytes (" << ByteFormat::compact(*size) << ")  " << row.displayPath
            << "\n";
    }
    out << "  total " << total << " bytes\n";
    out << "Clean-ups by their own tool:\n";
    for (const auto& cleanup : ToolCleanup::available(lookup)) {
        out << "  " << cleanup.title << ": " << cleanup.commandLine() << "\n";
    }
    out << "Large folders, only told about:\n";
    for (const auto& item : LargeItem::all()) {
        if (!item.displayPath) continue;
        Reclaimable place{item.id, item.title, *item.displayPath, "", true};
        if (auto size = DiskReclaim::size(place.url(home))) {
            out << "  " << item.title << "  " << *size << " bytes  " << *item.displayPath << "\n";
        }
    }
    const char* socket = std::getenv("SSH_AUTH_SOCK");
    auto identity = DevIdentity::read(home, socket ? std::optional<std::string>(socket) : std::nullopt);
    identity.agentKeys = DevIdentity::readAgentKeys(5.0, identity.agentSocket, lookup);
    out << "git: " << identity.gitName.value_or("(no name)") << " <" << identity.gitEmail.value_or("no email") << ">\n";
    out << "ssh: " << identity.sshSummary() << "\n";
    auto facts = NetworkFacts::read();
    for (const auto& [interface, address] : facts.addresses) out << "address: " << interface << " " << address << "\n";
    out << "router: " << facts.router.value_or("none") << "\n";
    for (const auto& server : facts.dnsServers) out << "name server: " << server << "\n";
    return 0;
}

} // namespace tavrick::Diagnostics
