// The helper as a real second process: a socket, a journal, the simulated chip in a mapped file,
// and the kernel's word on who is at the other end.
#include "FanCore/FanProtocol.h"
#include "Platform/Linux/FanHelperSocket.h"
#include "Platform/Simulated/SimulatedSMC.h"
#include "SigningCore/CodeIdentity.h"

#include "Support/Eventually.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace tavrick;
using tavrick::testing::ChildProcess;
using tavrick::testing::eventually;
namespace Reply = FanHelperReply;

namespace {

struct Helper {
    tavrick::testing::TempDir dir;
    std::filesystem::path socket = dir / "fh.sock";
    SimulatedSMC chip{dir / "smc"};
    std::unique_ptr<ChildProcess> process;

    Helper() { chip.reset(2, 1200, 6000, 8); }
    void start(std::vector<std::string> extra = {}, std::optional<std::string> allowed = std::nullopt) {
        std::vector<std::string> args{TAVRICK_FANHELPER, "--socket", socket.string(), "--smc", (dir / "smc").string(),
                                      "--journal", (dir / "journal.json").string(), "--allow-client",
                                      allowed.value_or(*CodeIdentity::ownCDHash())};
        args.insert(args.end(), extra.begin(), extra.end());
        process = std::make_unique<ChildProcess>(args, std::map<std::string, std::string>{});
        ASSERT_TRUE(process->waitForOutput("listening at", 20)) << process->output();
    }
    bool modesAre(std::initializer_list<int> allowed) {
        for (const auto& f : chip.fans()) {
            if (std::find(allowed.begin(), allowed.end(), f.mode) == allowed.end()) return false;
        }
        return true;
    }
    bool handedBack() { return modesAre({0, 3}); }
    bool allManual() { return modesAre({1}); }
};

// A raw client: frames out, frames in, with a time limit on every read.
struct Raw {
    int fd = -1;
    FanHelperSocket::FrameReader reader{1 << 20};
    explicit Raw(const std::filesystem::path& path) {
        auto connected = FanHelperSocket::connect(path, nullptr);
        fd = connected.value_or(-1);
    }
    ~Raw() {
        if (fd >= 0) ::close(fd);
    }
    void sendRaw(const std::string& bytes) { FanHelperSocket::writeAll(fd, bytes); }
    void call(FanHelperCall which, std::uint64_t id = 1, double level = 0, bool max = false) {
        sendRaw(FanWire::frame(FanWire::encodeCall({id, which, level, max})));
    }
    // The next reply, or nothing when the helper closed the connection or was silent.
    std::optional<FanWire::Reply> next(double seconds = 5) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (true) {
            if (auto payload = reader.next()) return FanWire::decodeReply(*payload);
            auto left = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
            if (left <= 0) return std::nullopt;
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, static_cast<int>(left * 1000) + 1) <= 0) return std::nullopt;
            char buffer[4096];
            ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) return std::nullopt;
            reader.append(buffer, static_cast<std::size_t>(n));
        }
    }
    bool isClosed(double seconds) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(seconds * 1000)) <= 0) return false;
        char c;
        return ::recv(fd, &c, 1, MSG_PEEK) == 0;
    }
};

} // namespace

TEST(FanHelperProcessTest, HelloBoostAndTheLastClientLeavingHandsBack) {
    Helper helper;
    helper.start();
    {
        Raw client(helper.socket);
        client.call(FanHelperCall::hello, 1);
        auto reply = client.next();
        ASSERT_TRUE(reply && reply->data);
        auto hello = Reply::decode<Reply::Hello>(*reply->data);
        EXPECT_EQ(hello.protocolVersion, 1);
        EXPECT_EQ(hello.cdhash, CodeIdentity::cdHash(TAVRICK_FANHELPER));
        client.call(FanHelperCall::apply, 2, 0, true);
        reply = client.next();
        ASSERT_TRUE(reply && reply->data);
        EXPECT_EQ(reply->id, 2u);
        auto applied = Reply::decode<Reply::ApplyResult>(*reply->data);
        EXPECT_TRUE(applied.accepted);
        EXPECT_TRUE(helper.allManual());
        EXPECT_TRUE(eventually([&] { return helper.chip.fans()[0].actual > 3000; }, 10));
    }
    // The connection closed: the helper hands back at once, not at its next tick.
    EXPECT_TRUE(eventually([&] { return helper.handedBack(); }, 3));
    helper.process->signal(SIGTERM);
    EXPECT_EQ(helper.process->wait(10), 0);
}

TEST(FanHelperProcessTest, TheHelperKilledMidBoostIsRecoveredByTheNextRun) {
    Helper helper;
    helper.start();
    Raw client(helper.socket);
    client.call(FanHelperCall::apply, 1, 1, true);
    ASSERT_TRUE(client.next());
    helper.process->signal(SIGKILL);
    helper.process->wait(10);
    EXPECT_TRUE(helper.allManual());  // nobody handed back: the journal knows
    EXPECT_TRUE(client.isClosed(2));
    helper.start();
    EXPECT_TRUE(eventually([&] { return helper.handedBack(); }, 3));
    Raw again(helper.socket);
    again.call(FanHelperCall::status, 1);
    auto reply = again.next();
    ASSERT_TRUE(reply && reply->data);
    auto status = Reply::decode<Reply::Status>(*reply->data);
    EXPECT_TRUE(status.recoveredOrphan);
    EXPECT_EQ(status.lastRelease->reason, FanReason::reclaiming);
}

TEST(FanHelperProcessTest, StoppingMidBoostHandsBackFirst) {
    Helper helper;
    helper.start();
    Raw client(helper.socket);
    client.call(FanHelperCall::apply, 1, 0.25, false);
    ASSERT_TRUE(client.next());
    ASSERT_TRUE(helper.allManual());
    helper.process->signal(SIGTERM);
    EXPECT_EQ(helper.process->wait(10), 0);
    EXPECT_TRUE(helper.handedBack());
    EXPECT_FALSE(std::filesystem::exists(helper.dir / "journal.json"));
}

TEST(FanHelperProcessTest, BadFramesGetTheirWordsAndNeverHang) {
    Helper helper;
    helper.start();
    Raw client(helper.socket);
    struct Row { std::string payload; std::string word; };
    for (const auto& row : std::vector<Row>{{"{not json", "malformed"},
                                            {R"({"id":3,"call":"format"})", "unknownCall"},
                                            {R"({"id":4,"call":"apply","level":"x","max":false})", "malformed"}}) {
        client.sendRaw(FanWire::frame(row.payload));
        auto reply = client.next();
        ASSERT_TRUE(reply) << row.payload;
        EXPECT_EQ(reply->error, row.word) << row.payload;
    }
    client.call(FanHelperCall::hello, 9);  // still served
    auto hello = client.next();
    ASSERT_TRUE(hello && hello->data);
    // A frame announcing more than the helper takes ends the connection after the word.
    client.sendRaw(std::string("\x7f\xff\xff\xff", 4) + "xxxx");
    auto tooLarge = client.next();
    ASSERT_TRUE(tooLarge);
    EXPECT_EQ(tooLarge->error, "tooLarge");
    EXPECT_TRUE(client.isClosed(3));
    EXPECT_TRUE(helper.handedBack());
}

TEST(FanHelperProcessTest, SilentCrowdedAndUntrustedClients) {
    Helper helper;
    helper.start({"--silent-timeout", "0.5"});
    {
        Raw silent(helper.socket);
        EXPECT_TRUE(silent.isClosed(5));
    }
    std::vector<std::unique_ptr<Raw>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(std::make_unique<Raw>(helper.socket));
        clients.back()->call(FanHelperCall::hello, 1);
        ASSERT_TRUE(clients.back()->next()) << i;
    }
    Raw ninth(helper.socket);
    auto busy = ninth.next();
    ASSERT_TRUE(busy);
    EXPECT_EQ(busy->error, "busy");
    clients.clear();

    Helper strict;
    strict.start({}, std::string(64, '0'));
    Raw stranger(strict.socket);
    stranger.call(FanHelperCall::hello, 1);
    EXPECT_FALSE(stranger.next(3));  // turned away without an answer
    EXPECT_TRUE(strict.process->output().find("turned away a client") != std::string::npos ||
                strict.process->waitForOutput("turned away a client", 3));
}

TEST(FanHelperProcessTest, AClientCallingTooOftenIsToldSoAndStillServed) {
    Helper helper;
    helper.start();
    Raw client(helper.socket);
    int limited = 0, answered = 0;
    for (std::uint64_t id = 1; id <= 30; ++id) client.call(FanHelperCall::hello, id);
    for (int i = 0; i < 30; ++i) {
        auto reply = client.next();
        ASSERT_TRUE(reply);
        if (reply->error == "rateLimited") ++limited;
        if (reply->data) ++answered;
    }
    EXPECT_GE(answered, 20);  // the burst
    EXPECT_GE(limited, 1);
    EXPECT_EQ(answered + limited, 30);
}
