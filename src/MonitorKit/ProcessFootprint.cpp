#include "MonitorKit/ProcessFootprint.h"

#include <charconv>
#include <fstream>
#include <sstream>
#include <string>

namespace tavrick::ProcessFootprint {

namespace {
// Reads "Key:   1234 kB" into bytes.
std::optional<std::uint64_t> field(std::string_view status, std::string_view key) {
    std::size_t at = 0;
    while (at < status.size()) {
        std::size_t end = status.find('\n', at);
        if (end == std::string_view::npos) end = status.size();
        std::string_view line = status.substr(at, end - at);
        at = end + 1;
        if (line.size() <= key.size() || line.substr(0, key.size()) != key || line[key.size()] != ':') continue;
        std::string_view rest = line.substr(key.size() + 1);
        auto first = rest.find_first_not_of(" \t");
        if (first == std::string_view::npos) return std::nullopt;
        rest = rest.substr(first);
        std::uint64_t value = 0;
        auto [ptr, error] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
        if (error != std::errc()) return std::nullopt;
        std::string_view unit(ptr, static_cast<std::size_t>(rest.data() + rest.size() - ptr));
        if (unit.find("kB") != std::string_view::npos) value *= 1024;
        return value;
    }
    return std::nullopt;
}
} // namespace

std::optional<std::uint64_t> fromStatus(std::string_view status) {
    auto anonymous = field(status, "RssAnon");
    if (!anonymous) return std::nullopt;
    return *anonymous + field(status, "VmSwap").value_or(0);
}

std::optional<std::uint64_t> current() {
    std::ifstream in("/proc/self/status");
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return fromStatus(text.str());
}

} // namespace tavrick::ProcessFootprint
