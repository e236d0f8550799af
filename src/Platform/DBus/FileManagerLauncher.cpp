#include "Platform/DBus/FileManagerLauncher.h"

#include "ActionKit/FileURL.h"
#include "Platform/DBus/BusLoop.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>

namespace tavrick {

FileManagerLauncher::FileManagerLauncher(BusLoop& loop, sdbus::IConnection& session, DesktopLauncher& underneath, Note note)
    : loop_(loop), session_(session), underneath_(underneath), note_(std::move(note)) {}

std::optional<std::string> FileManagerLauncher::applicationURL(const std::string& bundleIdentifier) const {
    return underneath_.applicationURL(bundleIdentifier);
}

void FileManagerLauncher::openApplication(const std::string& applicationURL,
                                          std::function<void(std::optional<std::string> failure)> completion) {
    underneath_.openApplication(applicationURL, std::move(completion));
}

std::optional<std::string> FileManagerLauncher::open(const URL& url) {
    return underneath_.open(url);
}

std::optional<std::string> FileManagerLauncher::reveal(const std::filesystem::path& path) {
    const auto url = FileURL::fromPath(path);
    if (!url) return "not an absolute path: " + path.string();
    std::string failure;
    if (!loop_.isAlive(session_)) {
        failure = "the session bus is gone";
    } else {
        loop_.sync([&] {
            try {
                auto manager = sdbus::createProxy(session_, service, "/org/freedesktop/FileManager1");
                manager->callMethod("ShowItems")
                    .onInterface(service)
                    .withTimeout(std::chrono::seconds(5))
                    .withArguments(std::vector<std::string>{url->absoluteString}, std::string());
            } catch (const sdbus::Error& failure_) {
                failure = failure_.getName() + ": " + failure_.getMessage();
            }
        });
    }
    if (failure.empty()) return std::nullopt;
    note_("the file manager could not select the file (" + failure + "); opening its folder instead");
    return underneath_.reveal(path);
}

} // namespace tavrick
