#pragma once

#include "FanKit/FanHelperClient.h"
#include "FanKit/FanHelperInstaller.h"

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>

namespace tavrick {

// Where the helper's files live: its socket (named by the service name), its journal, the
// simulated chip and its log, all in the support directory.
struct FanHelperPaths {
    std::filesystem::path helperExecutable;
    std::filesystem::path socket;
    std::filesystem::path journal;
    std::filesystem::path smc;
    std::filesystem::path log;
    // The systemd user unit written when the helper is registered.
    std::filesystem::path unitFile;

    static FanHelperPaths standard(const std::filesystem::path& supportDirectory,
                                   const std::filesystem::path& configDirectory);
};

// The helper as a per-user service of this program: registering writes a systemd user unit (for
// installs that want it) and allows the program to start the helper on demand; starting spawns
// it with the paths above and this program's hash as the one client it accepts, and a thread
// reaps it and logs how it ended. Without registration the helper is never started, except by
// `allowUnregisteredStart` (the command-line probe).
class FanHelperLauncher final : public FanHelperInstaller {
public:
    explicit FanHelperLauncher(FanHelperPaths paths);
    ~FanHelperLauncher() override;

    HelperServiceStatus status() override;
    void registerHelper() override;
    void unregister(std::function<void(std::optional<std::string>)> done) override;
    void openLoginItems() override;

    // Starts the helper unless one already listens. False with `error` when it could not be.
    bool launch(std::string* error);
    void allowUnregisteredStart(bool allow) { allowUnregistered_ = allow; }
    std::optional<pid_t> runningPid();
    const FanHelperPaths& paths() const { return paths_; }

private:
    std::string unitText() const;
    FanHelperPaths paths_;
    bool allowUnregistered_ = false;
    std::mutex mutex_;
    std::optional<pid_t> pid_;
    std::vector<std::thread> reapers_;
};

// Connections over the helper's Unix socket. A helper that is not running is started through
// the launcher and waited for; the peer must run the bundled helper's executable (its SHA-256),
// else the connection is dropped as not trusted.
class SocketFanHelperConnector final : public FanHelperConnector {
public:
    SocketFanHelperConnector(std::filesystem::path socket, std::optional<std::string> expectedHelperHash,
                             std::function<bool(std::string*)> launch);
    std::variant<std::shared_ptr<FanHelperChannel>, FanHelperFailure> open(FanHelperChannelEvents events,
                                                                          double deadline) override;

private:
    std::filesystem::path socket_;
    std::optional<std::string> expectedHash_;
    std::function<bool(std::string*)> launch_;
};

} // namespace tavrick
