// Requests per second of the file server against nginx (one worker a core) and Python's
// http.server, on one 1 KiB file, 50 clients, each request on its own connection, all measured by
// wrk in one run on 127.0.0.1. A peer that is not installed is skipped, and says so.
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/ManualScheduler.h"
#include "WebServerKit/StaticFileServer.h"

#include <benchmark/benchmark.h>

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using namespace tavrick;

namespace {

const int seconds = 5;
std::map<std::string, double> results;

fs::path workDirectory() {
    static fs::path directory = [] {
        char pattern[] = "/tmp/tavrick-serve-bench-XXXXXX";
        fs::path made = ::mkdtemp(pattern);
        fs::create_directories(made / "site");
        std::ofstream(made / "site" / "one.txt") << std::string(1024, 'x');
        return made;
    }();
    return directory;
}

std::string run(const std::string& command) {
    std::string out;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        std::array<char, 4096> buffer;
        while (std::fgets(buffer.data(), buffer.size(), pipe)) out += buffer.data();
        ::pclose(pipe);
    }
    return out;
}

bool have(const std::string& program) {
    return run("command -v " + program + " 2>/dev/null").size() > 0;
}

bool answers(int port) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        ::close(fd);
        if (ok) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

pid_t spawn(std::vector<std::string> argv) {
    pid_t pid = ::fork();
    if (pid == 0) {
        std::vector<char*> args;
        for (auto& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        std::freopen("/dev/null", "w", stderr);
        std::freopen("/dev/null", "w", stdout);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    return pid;
}

void end(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
}

// wrk's own count, from its "Requests/sec:" line.
double load(benchmark::State& state, const std::string& name, int port) {
    std::string report = run("wrk -t2 -c50 -d" + std::to_string(seconds) + "s -H 'Connection: close' http://127.0.0.1:" +
                             std::to_string(port) + "/one.txt 2>&1");
    std::smatch match;
    if (!std::regex_search(report, match, std::regex(R"(Requests/sec:\s+([0-9.]+))"))) {
        state.SkipWithError(("wrk gave no rate: " + report).c_str());
        return 0;
    }
    double rate = std::stod(match[1]);
    if (std::regex_search(report, match, std::regex(R"(Non-2xx or 3xx responses: (\d+))"))) {
        state.SkipWithError(("errors from " + name + ": " + match[1].str()).c_str());
    }
    state.counters["requests_per_second"] = rate;
    results[name] = rate;
    return rate;
}

void BM_Tavrick(benchmark::State& state) {
    if (!have("wrk")) return state.SkipWithError("wrk is not installed");
    ManualScheduler scheduler;
    auto log = DiagnosticLog::make(workDirectory() / "log", scheduler);
    StaticFileServer server(scheduler, *log);
    server.start(workDirectory() / "site", 0, false);
    for (auto _ : state) load(state, "tavrick", server.state().get().port);
    server.stop();
}

void BM_Nginx(benchmark::State& state) {
    if (!have("wrk") || !fs::exists("/usr/sbin/nginx")) return state.SkipWithError("nginx or wrk is not installed");
    int port = 18431;
    auto conf = workDirectory() / "nginx.conf";
    std::ofstream(conf) << "worker_processes " << std::thread::hardware_concurrency() << ";\n"
                        << "daemon off;\npid " << (workDirectory() / "nginx.pid").string() << ";\n"
                        << "error_log " << (workDirectory() / "nginx-error.log").string() << ";\n"
                        << "events { worker_connections 4096; }\n"
                        << "http { access_log off; sendfile on; tcp_nopush on; keepalive_timeout 0;\n"
                        << "  client_body_temp_path " << workDirectory().string() << ";\n"
                        << "  server { listen 127.0.0.1:" << port << "; root " << (workDirectory() / "site").string()
                        << "; } }\n";
    pid_t pid = spawn({"/usr/sbin/nginx", "-c", conf.string(), "-p", workDirectory().string()});
    if (!answers(port)) {
        end(pid);
        return state.SkipWithError("nginx did not start");
    }
    for (auto _ : state) load(state, "nginx", port);
    end(pid);
}

void BM_PythonHttpServer(benchmark::State& state) {
    if (!have("wrk") || !have("python3")) return state.SkipWithError("python3 or wrk is not installed");
    int port = 18432;
    pid_t pid = spawn({"python3", "-m", "http.server", std::to_string(port), "--bind", "127.0.0.1", "--directory",
                       (workDirectory() / "site").string()});
    if (!answers(port)) {
        end(pid);
        return state.SkipWithError("python3 -m http.server did not start");
    }
    for (auto _ : state) load(state, "python", port);
    end(pid);
}

BENCHMARK(BM_Tavrick)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(BM_Nginx)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(BM_PythonHttpServer)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    ::signal(SIGPIPE, SIG_IGN);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (results.count("tavrick")) {
        for (const char* peer : {"nginx", "python"}) {
            if (results.count(peer) && results[peer] > 0) {
                std::printf("tavrick / %s = %.2f\n", peer, results["tavrick"] / results[peer]);
            }
        }
    }
    fs::remove_all(workDirectory());
    return 0;
}
