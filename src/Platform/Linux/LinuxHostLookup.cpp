#include "Platform/Linux/LinuxHostLookup.h"

#include "CoreKit/FileIO.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstring>
#include <sstream>

namespace tavrick::LinuxHostLookup {

std::optional<std::string> reverseLookup(const std::string& address) {
    sockaddr_storage storage{};
    socklen_t length = 0;
    if (address.find(':') != std::string::npos) {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
        if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) != 1) return std::nullopt;
        v6->sin6_family = AF_INET6;
        length = sizeof(sockaddr_in6);
    } else {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
        if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) != 1) return std::nullopt;
        v4->sin_family = AF_INET;
        length = sizeof(sockaddr_in);
    }
    char host[1025] = {};
    if (getnameinfo(reinterpret_cast<sockaddr*>(&storage), length, host, sizeof host, nullptr, 0, NI_NAMEREQD) != 0) {
        return std::nullopt;
    }
    std::string name(host, strnlen(host, sizeof host));
    if (!name.empty() && name.back() == '.') name.pop_back();
    if (name.empty()) return std::nullopt;
    return name;
}

std::set<std::string> nameservers(std::string_view resolvConf) {
    std::set<std::string> servers;
    std::istringstream lines{std::string(resolvConf)};
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string keyword, address;
        if (!(words >> keyword >> address) || keyword != "nameserver") continue;
        // A scoped IPv6 server ("fe80::1%eth0") is the address before the zone.
        address = address.substr(0, address.find('%'));
        unsigned char buffer[16];
        if (inet_pton(AF_INET, address.c_str(), buffer) == 1 || inet_pton(AF_INET6, address.c_str(), buffer) == 1) {
            servers.insert(address);
        }
    }
    return servers;
}

HostLookup make(std::filesystem::path resolvConf) {
    HostLookup lookup;
    lookup.reverseLookup = &reverseLookup;
    lookup.dnsServers = [resolvConf] {
        int error = 0;
        auto text = FileIO::readAll(resolvConf, error);
        return text ? nameservers(*text) : std::set<std::string>{};
    };
    return lookup;
}

} // namespace tavrick::LinuxHostLookup
