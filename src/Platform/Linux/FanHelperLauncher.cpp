#include "Platform/Linux/FanHelperLauncher.h"

#include "CoreKit/FileIO.h"
#include "FanCore/FanProtocol.h"
#include "Platform/Linux/FanHelperSocket.h"
#include "SigningCore/CodeIdentity.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tavrick {

FanHelperPaths FanHelperPaths::standard(const std::filesystem::path& support, const std::filesystem::path& config) {
    FanHelperPaths p;
    std::error_code error;
    auto own = std::filesystem::read_symlink("/proc/self/exe", error);
    p.helperExecutable = own.parent_path() / std::string(FanHelperIdentity::linuxExecutableName);
    p.socket = support / std::string(FanHelperIdentity::socketName);
    p.journal = support / "fanhelper" / "journal.json";
    p.smc = support / "fanhelper" / "simulated-smc";
    p.log = support / "fanhelper" / "fanhelper.log";
    p.unitFile = config / "systemd" / "user" / (std::string(FanHelperIdentity::label) + ".service");
    return p;
}

FanHelperLauncher::FanHelperLauncher(FanHelperPaths paths) : paths_(std::move(paths)) {}

FanHelperLauncher::~FanHelperLauncher() {
    // The helper outlives this object on purpose: it hands the fans back by itself once its last
    // client is gone. Only the reapers are let go.
    for (auto& t : reapers_) t.detach();
}

HelperServiceStatus FanHelperLauncher::status() {
    std::error_code error;
    if (!std::filesystem::exists(paths_.helperExecutable, error)) return HelperServiceStatus::notFound;
    return std::filesystem::exists(paths_.unitFile, error) ? HelperServiceStatus::enabled : HelperServiceStatus::notRegistered;
}

std::string FanHelperLauncher::unitText() const {
    // Built by appending: GCC 12 warns falsely about chains of string additions in Release.
    std::string text = "[Unit]\nDescription=Tavrick fan helper (";
    text += FanHelperIdentity::label;
    text += ")\n\n[Service]\nExecStart=";
    auto quoted = [&text](const std::filesystem::path& p) {
        text += '"';
        text += p.string();
        text += '"';
    };
    quoted(paths_.helperExecutable);
    text += " --socket ";
    quoted(paths_.socket);
    text += " --smc ";
    quoted(paths_.smc);
    text += " --journal ";
    quoted(paths_.journal);
    text += " --allow-client ";
    text += CodeIdentity::ownCDHash().value_or("");
    text += "\nRestart=no\n\n[Install]\nWantedBy=default.target\n";
    return text;
}

void FanHelperLauncher::registerHelper() {
    if (status() == HelperServiceStatus::notFound) {
        throw std::runtime_error("The fan helper is missing beside this copy of Tavrick (" + paths_.helperExecutable.string() + ").");
    }
    std::error_code ignored;
    std::filesystem::create_directories(paths_.unitFile.parent_path(), ignored);
    if (auto failure = FileIO::writeAtomically(paths_.unitFile, unitText(), 0644)) {
        throw std::runtime_error("Could not " + failure->step + " " + paths_.unitFile.string() + ": " + std::strerror(failure->error));
    }
}

void FanHelperLauncher::unregister(std::function<void(std::optional<std::string>)> done) {
    std::error_code error;
    std::filesystem::remove(paths_.unitFile, error);  // only the file this program wrote
    if (done) done(error ? std::optional<std::string>(error.message()) : std::nullopt);
}

void FanHelperLauncher::openLoginItems() {}

std::optional<pid_t> FanHelperLauncher::runningPid() {
    std::lock_guard guard(mutex_);
    return pid_;
}

bool FanHelperLauncher::launch(std::string* error) {
    if (FanHelperSocket::isListening(paths_.socket)) return true;
    if (!allowUnregistered_ && status() != HelperServiceStatus::enabled) {
        if (error) *error = "the fan helper is not installed";
        return false;
    }
    std::error_code ignored;
    std::filesystem::create_directories(paths_.log.parent_path(), ignored);
    const std::string self = CodeIdentity::ownCDHash().value_or("");
    std::vector<std::string> args{paths_.helperExecutable.string(), "--socket", paths_.socket.string(), "--smc",
                                  paths_.smc.string(), "--journal", paths_.journal.string(), "--allow-client", self};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, paths_.log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Its own session: a terminal's interrupt for the program is not one for the helper, which
    // hands back when the program's connection ends.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    pid_t pid = 0;
    const int result = ::posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (result != 0) {
        if (error) *error = "could not start " + paths_.helperExecutable.string() + ": " + std::strerror(result);
        return false;
    }
    std::lock_guard guard(mutex_);
    pid_ = pid;
    reapers_.emplace_back([pid] {
        int status = 0;
        ::waitpid(pid, &status, 0);
    });
    return true;
}

// MARK: The socket connector

namespace {

class SocketChannel final : public FanHelperChannel {
public:
    explicit SocketChannel(int fd) : fd_(fd) {}
    ~SocketChannel() override {
        ::shutdown(fd_, SHUT_RDWR);
        ::close(fd_);
    }
    bool send(const std::string& frame) override { return FanHelperSocket::writeAll(fd_, frame); }
    void close() override { ::shutdown(fd_, SHUT_RDWR); }

    // The reader owns the descriptor and closes it when the stream ends.
    static void read(int fd, FanHelperChannelEvents events) {
        std::thread([fd, events = std::move(events)] {
            FanHelperSocket::FrameReader reader(1 << 20);
            char buffer[8192];
            while (true) {
                const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                reader.append(buffer, static_cast<std::size_t>(n));
                while (auto payload = reader.next()) {
                    if (auto reply = FanWire::decodeReply(*payload)) events.onReply(*reply);
                }
                if (reader.isOversized()) break;
            }
            ::close(fd);
            events.onClosed();
        }).detach();
    }

private:
    int fd_;
};

} // namespace

SocketFanHelperConnector::SocketFanHelperConnector(std::filesystem::path socket, std::optional<std::string> expectedHelperHash,
                                                   std::function<bool(std::string*)> launch)
    : socket_(std::move(socket)), expectedHash_(std::move(expectedHelperHash)), launch_(std::move(launch)) {}

std::variant<std::shared_ptr<FanHelperChannel>, FanHelperFailure> SocketFanHelperConnector::open(FanHelperChannelEvents events,
                                                                                               double deadline) {
    using clock = std::chrono::steady_clock;
    const auto until = clock::now() + std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(deadline));
    bool launched = false;
    while (true) {
        int error = 0;
        if (auto fd = FanHelperSocket::connect(socket_, &error)) {
            auto peer = FanHelperSocket::peer(*fd);
            auto hash = peer ? CodeIdentity::cdHash(peer->executable) : std::nullopt;
            if (!hash) {
                // A helper that is just exiting can still take a connection for a moment, but no
                // longer says what it runs: wait for the next one rather than judge this one.
                ::close(*fd);
                if (clock::now() >= until) return FanHelperFailure::of(FanHelperFailure::Kind::timedOut);
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                continue;
            }
            if (expectedHash_ && *hash != *expectedHash_) {
                ::close(*fd);
                return FanHelperFailure::of(FanHelperFailure::Kind::helperNotTrusted);
            }
            auto channel = std::make_shared<SocketChannel>(::dup(*fd));
            SocketChannel::read(*fd, std::move(events));
            return channel;
        }
        if (error != ENOENT && error != ECONNREFUSED) return FanHelperFailure::other(std::strerror(error));
        if (!launched) {
            launched = true;
            std::string why;
            if (!launch_ || !launch_(&why)) return FanHelperFailure::of(FanHelperFailure::Kind::invalidated);
        }
        if (clock::now() >= until) return FanHelperFailure::of(FanHelperFailure::Kind::timedOut);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

} // namespace tavrick
