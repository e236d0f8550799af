#include "FanKit/FanHelperClient.h"
#include "FanKit/FanHelperInstaller.h"
#include "Platform/Linux/FanHelperLauncher.h"
#include "Platform/Linux/FanHelperSocket.h"
#include "Platform/Simulated/SimulatedSMC.h"
#include "SigningCore/CodeIdentity.h"

#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/ManualScheduler.h"
#include "Support/Eventually.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>

using namespace tavrick;
namespace Reply = FanHelperReply;
using FK = FanHelperFailure::Kind;

TEST(FanConnectionRecordTest, RefusalsAndCrashesAreToldApart) {
    FanConnectionRecord fresh;
    EXPECT_TRUE(fresh.interrupted());  // dropped before any answer: turned away
    FanConnectionRecord record;
    record.answered();
    EXPECT_FALSE(record.interrupted());
    EXPECT_EQ(record.run, 1);
    EXPECT_TRUE(record.wasRefused(1));  // sent in a run with no answer
    EXPECT_FALSE(record.wasRefused(0));
    EXPECT_TRUE(record.interrupted());  // a second drop with no answer between
    EXPECT_TRUE(record.isRefused);
    record.answered();
    EXPECT_TRUE(record.interrupted());  // once refused, always refused
}

TEST(FanHelperFailureTest, Texts) {
    EXPECT_EQ(FanHelperFailure::of(FK::timedOut).text(), "The fan helper did not answer.");
    EXPECT_EQ(FanHelperFailure::of(FK::unreadableReply).text(), "The fan helper's answer could not be read.");
    EXPECT_EQ(FanHelperFailure::other("x").text(), "x");
}

namespace {

// A channel whose far end the test plays.
struct ScriptedChannel : FanHelperChannel {
    std::vector<std::string> sent;
    bool closed = false;
    bool send(const std::string& frame) override {
        sent.push_back(frame);
        return true;
    }
    void close() override { closed = true; }
};

struct ScriptedConnector : FanHelperConnector {
    std::vector<FanHelperChannelEvents> events;
    std::vector<std::shared_ptr<ScriptedChannel>> channels;
    std::optional<FanHelperFailure> failure;
    std::variant<std::shared_ptr<FanHelperChannel>, FanHelperFailure> open(FanHelperChannelEvents e, double) override {
        if (failure) return *failure;
        events.push_back(std::move(e));
        channels.push_back(std::make_shared<ScriptedChannel>());
        return std::shared_ptr<FanHelperChannel>(channels.back());
    }
    std::uint64_t lastID() {
        auto& frame = channels.back()->sent.back();
        return FanWire::decodeCall(frame.substr(4))->id;
    }
};

const std::string helloJSON = R"({"protocolVersion":1,"build":"1"})";

} // namespace

TEST(FanHelperClientTest, AReplyATimerAndAnEndFinishACallOnce) {
    ManualScheduler scheduler;
    auto connector = std::make_shared<ScriptedConnector>();
    auto client = FanHelperClient::make(connector, scheduler);
    std::vector<FanHelperOutcome<Reply::Hello>> answers;
    client->hello(5, [&](auto outcome) { answers.push_back(outcome); });
    scheduler.runUntilIdle();
    ASSERT_EQ(connector->channels.size(), 1u);
    const auto id = connector->lastID();
    scheduler.advance(5);  // the deadline wins
    connector->events[0].onReply({id, helloJSON, std::nullopt});  // a late reply is dropped
    scheduler.runUntilIdle();
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(std::get<FanHelperFailure>(answers[0]).kind, FK::timedOut);

    client->hello(5, [&](auto outcome) { answers.push_back(outcome); });
    scheduler.runUntilIdle();
    connector->events[0].onReply({connector->lastID(), helloJSON, std::nullopt});
    scheduler.advance(6);
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(std::get<Reply::Hello>(answers[1]).build, "1");

    // Garbage in a reply is unreadable, not a crash.
    client->hello(5, [&](auto outcome) { answers.push_back(outcome); });
    scheduler.runUntilIdle();
    connector->events[0].onReply({connector->lastID(), std::string(R"({"build":1})"), std::nullopt});
    scheduler.runUntilIdle();
    EXPECT_EQ(std::get<FanHelperFailure>(answers[2]).kind, FK::unreadableReply);
    // A word with id 0 is about the connection: it ends every call still waiting.
    std::vector<FanHelperOutcome<Reply::Status>> statuses;
    client->status([&](auto o) { statuses.push_back(o); });
    scheduler.runUntilIdle();
    connector->events[0].onReply({0, std::nullopt, std::string("busy")});
    scheduler.runUntilIdle();
    ASSERT_EQ(statuses.size(), 1u);
    EXPECT_TRUE(std::holds_alternative<FanHelperFailure>(statuses[0]));
}

TEST(FanHelperClientTest, InterruptionRehellosSpacedAndRefusalDetaches) {
    ManualScheduler scheduler;
    auto connector = std::make_shared<ScriptedConnector>();
    auto client = FanHelperClient::make(connector, scheduler);
    int interruptions = 0, refusals = 0;
    client->onInterruption = [&] { ++interruptions; };
    client->onRefusal = [&] { ++refusals; };
    std::vector<FanHelperOutcome<Reply::Status>> answers;
    client->hello(5, [](auto) {});
    scheduler.runUntilIdle();
    connector->events[0].onReply({connector->lastID(), helloJSON, std::nullopt});
    client->status([&](auto o) { answers.push_back(o); });
    scheduler.runUntilIdle();
    // The helper answered in this run, then went away mid-call: a crash, not a refusal.
    connector->events[0].onClosed();
    scheduler.advance(0.001);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(std::get<FanHelperFailure>(answers[0]).kind, FK::interrupted);
    EXPECT_EQ(interruptions, 1);
    ASSERT_EQ(connector->channels.size(), 2u);  // the hello that brings it back
    connector->events[1].onReply({connector->lastID(), helloJSON, std::nullopt});
    connector->events[1].onClosed();
    scheduler.runUntilIdle();
    EXPECT_EQ(connector->channels.size(), 2u);  // the second hello waits its second
    scheduler.advance(0.99);
    EXPECT_EQ(connector->channels.size(), 2u);
    scheduler.advance(0.02);
    EXPECT_EQ(connector->channels.size(), 3u);
    EXPECT_EQ(interruptions, 2);
    // Dropped without an answer in this run: turned away, and not asked again on it.
    connector->events[2].onClosed();
    scheduler.runUntilIdle();
    EXPECT_EQ(refusals, 1);
    scheduler.advance(5);
    EXPECT_EQ(connector->channels.size(), 3u);
}

TEST(FanHelperClientTest, AHelperThatIsNotOursOrNotThere) {
    ManualScheduler scheduler;
    auto connector = std::make_shared<ScriptedConnector>();
    auto client = FanHelperClient::make(connector, scheduler);
    std::vector<FanHelperOutcome<Reply::Hello>> answers;
    connector->failure = FanHelperFailure::of(FK::helperNotTrusted);
    client->hello(5, [&](auto o) { answers.push_back(o); });
    scheduler.runUntilIdle();
    EXPECT_EQ(std::get<FanHelperFailure>(answers[0]).text(),
              "The fan helper on this Mac is not signed by the same developer as this copy of Tavrick.");
    int invalidations = 0;
    client->onInvalidation = [&] { ++invalidations; };
    connector->failure = FanHelperFailure::of(FK::invalidated);
    client->hello(5, [&](auto o) { answers.push_back(o); });
    scheduler.runUntilIdle();
    EXPECT_EQ(std::get<FanHelperFailure>(answers[1]).kind, FK::invalidated);
    EXPECT_EQ(invalidations, 1);
    client->invalidate();
    connector->failure.reset();
    client->hello(5, [&](auto o) { answers.push_back(o); });
    scheduler.runUntilIdle();
    EXPECT_EQ(std::get<FanHelperFailure>(answers[2]).kind, FK::invalidated);
    EXPECT_TRUE(connector->channels.empty());
}

// MARK: The real client, the real launcher and the real helper

namespace {
struct Installed {
    tavrick::testing::TempDir dir;
    FanHelperPaths paths;
    std::unique_ptr<FanHelperLauncher> launcher;
    std::unique_ptr<SimulatedSMC> chip;
    Installed() {
        paths = FanHelperPaths::standard(dir / "data", dir / "config");
        paths.helperExecutable = TAVRICK_FANHELPER;
        launcher = std::make_unique<FanHelperLauncher>(paths);
        chip = std::make_unique<SimulatedSMC>(paths.smc);
        chip->reset(2, 1200, 6000, 8);
    }
    ~Installed() {
        if (auto pid = launcher->runningPid()) ::kill(*pid, SIGTERM);
        tavrick::testing::eventually([&] { return !FanHelperSocket::isListening(paths.socket); }, 5);
    }
    std::shared_ptr<FanHelperClient> client(Scheduler& scheduler, std::optional<std::string> expected) {
        auto* l = launcher.get();
        return FanHelperClient::make(std::make_shared<SocketFanHelperConnector>(paths.socket, expected,
                                                                                [l](std::string* e) { return l->launch(e); }),
                                     scheduler);
    }
    bool handedBack() {
        for (const auto& f : chip->fans()) {
            if (f.mode != 0 && f.mode != 3) return false;
        }
        return true;
    }
};
} // namespace

TEST(FanHelperEndToEndTest, InstalledOnDemandBoostsAndHandsBackWhenTheClientGoes) {
    Installed installed;
    auto& scheduler = DispatchScheduler::shared();
    auto unregistered = installed.client(scheduler, CodeIdentity::cdHash(TAVRICK_FANHELPER));
    auto refused = unregistered->helloBlockingResult(2);
    ASSERT_TRUE(std::holds_alternative<FanHelperFailure>(refused));
    EXPECT_EQ(std::get<FanHelperFailure>(refused).kind, FK::invalidated);  // not installed: never started

    installed.launcher->registerHelper();
    EXPECT_EQ(installed.launcher->status(), HelperServiceStatus::enabled);
    EXPECT_TRUE(tavrick::testing::readFile(installed.paths.unitFile).find("ExecStart=") != std::string::npos);
    {
        auto client = installed.client(scheduler, CodeIdentity::cdHash(TAVRICK_FANHELPER));
        auto hello = client->helloBlockingResult(FanHelperClient::respawnDeadline);
        ASSERT_TRUE(std::holds_alternative<Reply::Hello>(hello)) << std::get<FanHelperFailure>(hello).text();
        auto applied = client->applyBlocking(FanRequest::max());
        ASSERT_TRUE(std::holds_alternative<Reply::ApplyResult>(applied));
        EXPECT_TRUE(std::get<Reply::ApplyResult>(applied).status.controlling);
        EXPECT_FALSE(installed.handedBack());
        client->invalidate();
    }
    EXPECT_TRUE(tavrick::testing::eventually([&] { return installed.handedBack(); }, 3));

    // A helper that is not the one this copy carries is not trusted.
    auto wrong = installed.client(scheduler, std::string(64, 'a'));
    auto hello = wrong->helloBlockingResult(3);
    ASSERT_TRUE(std::holds_alternative<FanHelperFailure>(hello));
    EXPECT_EQ(std::get<FanHelperFailure>(hello).kind, FK::helperNotTrusted);
}

TEST(FanHelperEndToEndTest, TheHelperKilledMidBoostComesBackAndHandsBack) {
    Installed installed;
    installed.launcher->registerHelper();
    auto& scheduler = DispatchScheduler::shared();
    auto client = installed.client(scheduler, CodeIdentity::cdHash(TAVRICK_FANHELPER));
    ASSERT_TRUE(std::holds_alternative<Reply::ApplyResult>(client->applyBlocking(FanRequest{0.5, false})));
    auto first = installed.launcher->runningPid();
    ASSERT_TRUE(first);
    ::kill(*first, SIGKILL);
    // The next call starts a new helper, which finds the journal and hands the fans back first.
    auto status = client->statusBlockingResult();
    // A call already on its way when the helper died is interrupted; the one after brings it back.
    if (std::holds_alternative<FanHelperFailure>(status)) {
        EXPECT_EQ(std::get<FanHelperFailure>(status).kind, FK::interrupted);
        status = client->statusBlockingResult();
    }
    EXPECT_TRUE(tavrick::testing::eventually([&] { return installed.handedBack(); }, 15));
    EXPECT_NE(installed.launcher->runningPid(), first);
    ASSERT_TRUE(std::holds_alternative<Reply::Status>(status)) << std::get<FanHelperFailure>(status).text();
    EXPECT_TRUE(std::get<Reply::Status>(status).recoveredOrphan);
    client->invalidate();
}
