#include "WebServerKit/StaticFileServer.h"

#include "CoreKit/ManualScheduler.h"
#include "Support/Eventually.h"
#include "Support/TempDir.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>
#include <tuple>

namespace tavrick {
namespace {

namespace fs = std::filesystem;
using testing::eventually;
using testing::TempDir;
using testing::writeFile;
using State = StaticFileServer::State;

int connectTo(std::uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    timeval limit{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return fd;
}

std::string readAll(int fd) {
    std::string out;
    char buffer[4096];
    ssize_t count;
    while ((count = ::recv(fd, buffer, sizeof buffer, 0)) > 0) out.append(buffer, static_cast<std::size_t>(count));
    return out;
}

std::string roundTrip(std::uint16_t port, const std::string& request) {
    int fd = connectTo(port);
    if (fd < 0) return "connect failed";
    ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    auto answer = readAll(fd);
    ::close(fd);
    return answer;
}

std::string body(const std::string& response) {
    auto at = response.find("\r\n\r\n");
    return at == std::string::npos ? "" : response.substr(at + 4);
}

class Serving : public ::testing::Test {
protected:
    TempDir temp;
    fs::path root = temp / "site";
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(temp / "logs", scheduler);
    std::unique_ptr<StaticFileServer> server;
    std::uint16_t port = 0;

    void SetUp() override {
        fs::create_directories(root);
        writeFile(root / "page.txt", "hello");
        writeFile(temp / "secret", "secret");
        server = std::make_unique<StaticFileServer>(scheduler, *log, StaticFileServer::Options{.threads = 1, .idleSeconds = 10.0, .hostName = {}});
        server->start(root, 0, false);
        ASSERT_EQ(server->state().get().kind, State::Kind::running) << server->state().get().message;
        port = server->state().get().port;
    }
    std::string notes() {
        scheduler.runUntilIdle();
        return log->contents();
    }
};

TEST_F(Serving, AnswersOverARealSocketAndCountsEachRequest) {
    EXPECT_EQ(server->url(), "http://localhost:" + std::to_string(port));
    EXPECT_EQ(server->networkURL(), std::nullopt);
    auto answer = roundTrip(port, "GET /page.txt HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(answer,
              "HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: 5\r\n"
              "Cache-Control: no-store\r\nConnection: close\r\n\r\nhello");
    EXPECT_EQ(body(roundTrip(port, "GET /%2e%2e/secret HTTP/1.1\r\n\r\n")), "Outside the folder");
    EXPECT_EQ(body(roundTrip(port, "HEAD /page.txt HTTP/1.1\r\n\r\n")), "");
    EXPECT_TRUE(eventually([&] {
        scheduler.runUntilIdle();
        return server->requestCount().get() == 3;
    }));
    EXPECT_NE(notes().find("refused a path that left the folder"), std::string::npos);
    EXPECT_NE(notes().find("serving " + fs::absolute(root).string() + " on " + std::to_string(port)), std::string::npos);
}

TEST_F(Serving, ABigFileArrivesWholeWithoutBeingHeldInMemory) {
    std::string big(3 * 1024 * 1024 + 7, 'x');
    for (std::size_t i = 0; i < big.size(); i += 4096) big[i] = static_cast<char>('a' + (i / 4096) % 26);
    writeFile(root / "big.bin", big);
    auto answer = roundTrip(port, "GET /big.bin HTTP/1.1\r\n\r\n");
    EXPECT_NE(answer.find("Content-Type: application/octet-stream\r\nContent-Length: 3145735\r\n"), std::string::npos);
    EXPECT_TRUE(body(answer) == big);
}

TEST_F(Serving, ARequestSplitOverTwoReadsIsBadAndASilentClientBlocksNobody) {
    int silent = connectTo(port);
    ASSERT_GE(silent, 0);
    int split = connectTo(port);
    ::send(split, "GET /page.txt HT", 16, MSG_NOSIGNAL);
    // The first half alone is answered; the second half is never looked at.
    EXPECT_EQ(body(readAll(split)), "Bad request");
    ::close(split);
    EXPECT_EQ(body(roundTrip(port, "GET /page.txt HTTP/1.1\r\n\r\n")), "hello");
    ::close(silent);
}

TEST_F(Serving, AnOversizedRequestIsAnsweredFromItsFirstReadAndTheRestIgnored) {
    std::string request = "GET /page.txt HTTP/1.1\r\nX-Pad: " + std::string(40000, 'p') + "\r\n\r\n";
    EXPECT_EQ(body(roundTrip(port, request)), "hello");
    std::string line = "GET /" + std::string(9000, 'a') + " HTTP/1.1\r\n\r\n";
    EXPECT_EQ(body(roundTrip(port, line)), "Bad request");
}

TEST_F(Serving, AFolderRemovedWhileServedAnswersNotFound) {
    fs::remove_all(root);
    EXPECT_EQ(body(roundTrip(port, "GET /page.txt HTTP/1.1\r\n\r\n")), "Not found");
    EXPECT_EQ(server->state().get().kind, State::Kind::running);
}

TEST_F(Serving, StartFailuresTellTheUserWhy) {
    StaticFileServer other(scheduler, *log);
    const std::tuple<fs::path, std::int64_t, std::string> cases[] = {
        {temp / "gone", 8000, "That folder is not there any more."},
        {"", 8000, "That folder is not there any more."},
        {root, 65536, "65536 is not a usable port."},
        {root, -1, "-1 is not a usable port."},
        {root, port, "Port " + std::to_string(port) + " is already in use."},
    };
    for (const auto& [folder, number, message] : cases) {
        other.start(folder, number, false);
        EXPECT_EQ(other.state().get(), State::failed(message)) << folder << " " << number;
        EXPECT_FALSE(other.url());
    }
    // The failed attempts left the first server answering.
    EXPECT_EQ(body(roundTrip(port, "GET /page.txt HTTP/1.1\r\n\r\n")), "hello");
}

TEST_F(Serving, StopClosesTheListenerAndRestartMovesTheFolder) {
    server->stop();
    EXPECT_EQ(server->state().get(), State::stopped());
    EXPECT_EQ(connectTo(port), -1);
    fs::create_directories(temp / "other");
    writeFile(temp / "other" / "page.txt", "other");
    server->start(temp / "other", 0, true);
    ASSERT_TRUE(server->isRunning());
    EXPECT_TRUE(server->isOnNetwork().get());
    EXPECT_TRUE(server->networkURL().has_value());
    EXPECT_EQ(body(roundTrip(server->state().get().port, "GET /page.txt HTTP/1.1\r\n\r\n")), "other");
}

TEST_F(Serving, ManyClientsAtOnceEachGetTheirOwnAnswer) {
    for (int i = 0; i < 20; ++i) writeFile(root / ("f" + std::to_string(i)), std::to_string(i));
    std::vector<std::string> answers(20);
    std::vector<std::thread> clients;
    for (int i = 0; i < 20; ++i) {
        clients.emplace_back([&, i] { answers[i] = body(roundTrip(port, "GET /f" + std::to_string(i) + " HTTP/1.1\r\n\r\n")); });
    }
    for (auto& client : clients) client.join();
    for (int i = 0; i < 20; ++i) EXPECT_EQ(answers[i], std::to_string(i));
}

} // namespace
} // namespace tavrick
