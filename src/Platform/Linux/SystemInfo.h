#pragma once

#include <string>

namespace tavrick::SystemInfo {

// The operating system's version as one line: the distribution's name and the kernel,
// "Debian GNU/Linux 12 (bookworm), kernel 6.1.0-18-amd64".
std::string operatingSystemVersionString();

// The same from the text of an os-release file and a kernel release, for tests.
std::string describe(const std::string& osRelease, const std::string& kernelRelease);

} // namespace tavrick::SystemInfo
