#include "Platform/Linux/SystemInfo.h"

#include <fstream>
#include <sstream>
#include <sys/utsname.h>

namespace tavrick::SystemInfo {

namespace {
std::string unquote(std::string value) {
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
        value = value.substr(1, value.size() - 2);
    }
    return value;
}
} // namespace

std::string describe(const std::string& osRelease, const std::string& kernelRelease) {
    std::string name;
    std::istringstream lines(osRelease);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("PRETTY_NAME=", 0) == 0) name = unquote(line.substr(12));
    }
    if (name.empty()) name = "Linux";
    if (!kernelRelease.empty()) name += ", kernel " + kernelRelease;
    return name;
}

std::string operatingSystemVersionString() {
    std::string osRelease;
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream in(path);
        if (!in) continue;
        std::ostringstream text;
        text << in.rdbuf();
        osRelease = text.str();
        break;
    }
    utsname names{};
    std::string kernel = uname(&names) == 0 ? names.release : "";
    return describe(osRelease, kernel);
}

} // namespace tavrick::SystemInfo
