#include "NetCore/Flow.h"

#include <nlohmann/json.hpp>

#include <arpa/inet.h>

#include <array>

namespace tavrick {

namespace {
void combine(std::size_t& seed, std::size_t value) {
    seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
}
} // namespace

std::string Endpoint::display() const {
    if (isIPv6) return "[" + address + "]:" + std::to_string(port);
    return address + ":" + std::to_string(port);
}

bool Endpoint::isPrivateAddress(std::string_view address) {
    const std::string text(address);
    std::array<unsigned char, 16> bytes{};
    if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
        const unsigned a = bytes[0], b = bytes[1];
        if (a == 0 || a == 10 || a == 127) return true;
        // Every second octet from 64 up, wider than the shared address block on purpose.
        if (a == 100 && b >= 64) return true;
        if (a == 169 && b == 254) return true;
        if (a == 172 && b >= 16 && b <= 31) return true;
        if (a == 192 && b == 168) return true;
        return a >= 224;
    }
    if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) {
        bool firstFifteenZero = true;
        for (int i = 0; i < 15; ++i) firstFifteenZero = firstFifteenZero && bytes[i] == 0;
        if (firstFifteenZero && (bytes[15] == 0 || bytes[15] == 1)) return true;
        if (bytes[0] == 0xFC || bytes[0] == 0xFD) return true;
        if (bytes[0] == 0xFE && bytes[1] >= 0x80) return true;
        return bytes[0] == 0xFF;
    }
    return false;
}

std::optional<std::string_view> Endpoint::service(std::uint16_t port) {
    switch (port) {
    case 22: return "SSH";
    case 25: case 465: case 587: return "Mail";
    case 53: return "DNS";
    case 80: return "HTTP";
    case 123: return "NTP";
    case 143: case 993: return "IMAP";
    case 443: return "HTTPS";
    case 1935: return "RTMP";
    case 3478: case 19302: return "STUN";
    case 5060: case 5061: return "SIP";
    case 5223: return "Apple Push";
    case 8080: case 8443: return "HTTP (alt)";
    default: return std::nullopt;
    }
}

void to_json(nlohmann::json& json, const Endpoint& endpoint) {
    json = nlohmann::json{{"address", endpoint.address}, {"port", endpoint.port}, {"isIPv6", endpoint.isIPv6}};
}

void from_json(const nlohmann::json& json, Endpoint& endpoint) {
    json.at("address").get_to(endpoint.address);
    json.at("port").get_to(endpoint.port);
    json.at("isIPv6").get_to(endpoint.isIPv6);
}

std::string_view rawValue(FlowState state) {
    switch (state) {
    case FlowState::established: return "established";
    case FlowState::listening: return "listening";
    case FlowState::datagram: return "datagram";
    }
    return "established";
}

template <>
std::optional<FlowState> fromRaw<FlowState>(std::string_view raw) {
    if (raw == "established") return FlowState::established;
    if (raw == "listening") return FlowState::listening;
    if (raw == "datagram") return FlowState::datagram;
    return std::nullopt;
}

void to_json(nlohmann::json& json, const AppKey& key) {
    json = nlohmann::json{{"executablePath", key.executablePath}, {"fallbackName", key.fallbackName}};
}

void from_json(const nlohmann::json& json, AppKey& key) {
    json.at("executablePath").get_to(key.executablePath);
    json.at("fallbackName").get_to(key.fallbackName);
}

namespace ProcessIdentity {

std::string displayName(std::string_view executablePath, std::string_view processName) {
    if (auto app = owningApp(executablePath)) return *app;
    if (!processName.empty()) return std::string(processName);
    return "Unknown";
}

std::optional<std::string> owningApp(std::string_view path) {
    std::size_t start = 0;
    while (start < path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        std::string_view component = path.substr(start, end - start);
        // The outermost bundle wins, so a helper inside an app reports as the app.
        if (component.size() >= 4 && component.substr(component.size() - 4) == ".app") {
            if (component.size() == 4) return std::nullopt;
            return std::string(component.substr(0, component.size() - 4));
        }
        start = end + 1;
    }
    return std::nullopt;
}

bool isSystemPath(std::string_view path) {
    for (std::string_view prefix : {"/System/", "/usr/libexec/", "/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"}) {
        if (path.starts_with(prefix)) return true;
    }
    return false;
}

std::optional<std::string> lastComponent(std::string_view path) {
    std::size_t end = path.size();
    while (end > 0 && path[end - 1] == '/') --end;
    if (end > 0) {
        std::size_t slash = path.rfind('/', end - 1);
        std::size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
        return std::string(path.substr(begin, end - begin));
    }
    if (!path.empty()) return std::string(path);
    return std::nullopt;
}

} // namespace ProcessIdentity

} // namespace tavrick

std::size_t std::hash<tavrick::Endpoint>::operator()(const tavrick::Endpoint& e) const noexcept {
    std::size_t seed = std::hash<std::string>{}(e.address);
    tavrick::combine(seed, e.port);
    tavrick::combine(seed, e.isIPv6);
    return seed;
}

std::size_t std::hash<tavrick::FlowKey>::operator()(const tavrick::FlowKey& k) const noexcept {
    std::size_t seed = std::hash<std::int32_t>{}(k.pid);
    tavrick::combine(seed, std::hash<double>{}(k.processStartedAt));
    tavrick::combine(seed, k.localPort);
    tavrick::combine(seed, std::hash<std::string>{}(k.remoteAddress));
    tavrick::combine(seed, k.remotePort);
    return seed;
}
