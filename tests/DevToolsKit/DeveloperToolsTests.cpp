#include "DevToolsKit/DeveloperIdentity.h"
#include "DevToolsKit/NetworkTools.h"

#include "CoreKit/ManualScheduler.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <thread>
#include <tuple>

namespace tavrick {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::writeFile;

class DevTools : public ::testing::Test {
protected:
    TempDir temp;
    fs::path home = temp / "home";
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(temp / "logs", scheduler);
    ProgramLookup system = lookupInFolders({"/usr/bin", "/bin", "/usr/sbin", "/sbin"});
    // The fixed paths of the original platform, answered by this system's copy of the program.
    ProgramLookup byName = [this](const std::string& name) { return system(fs::path(name).filename().string()); };
    void SetUp() override { fs::create_directories(home); }
    std::string notes() {
        scheduler.runUntilIdle();
        return log->contents();
    }
    fs::path script(const std::string& name, const std::string& body) {
        fs::create_directories(temp / "bin");
        writeFile(temp / "bin" / name, "#!/bin/sh\n" + body + "\n");
        fs::permissions(temp / "bin" / name, fs::perms::owner_all);
        return temp / "bin" / name;
    }
};

TEST_F(DevTools, GitIdentityIsReadFromUserSectionsLaterFileWinning) {
    using Name = std::optional<std::string>;
    const std::tuple<const char*, Name, Name> cases[] = {
        {"[user]\n\tname = Ada Lovelace\n\temail = ada@example.org\n", "Ada Lovelace", "ada@example.org"},
        {"[User]\nName=\"Quoted Name\"\n", "Quoted Name", std::nullopt},
        {"[user \"work\"]\nname = Work\n[core]\nname = Core\n", std::nullopt, std::nullopt},
        {"# [user]\n; name = x\n[user]\n# name = y\nemail = e@x.io\n", std::nullopt, "e@x.io"},
        {"", std::nullopt, std::nullopt},
    };
    for (const auto& [text, expectedName, expectedEmail] : cases) {
        Name name, email;
        DevIdentity::parseGitConfig(text, name, email);
        EXPECT_EQ(name, expectedName) << text;
        EXPECT_EQ(email, expectedEmail) << text;
    }
    writeFile(home / ".gitconfig", "[user]\nname = First\nemail = first@x.org\n");
    fs::create_directories(home / ".config/git");
    writeFile(home / ".config/git/config", "[user]\nname = Second\n");
    fs::create_directories(home / ".ssh");
    writeFile(home / ".ssh/id_ed25519.pub", "k");
    writeFile(home / ".ssh/id_rsa.pub", "k");
    writeFile(home / ".ssh/id_rsa", "secret");
    auto identity = DevIdentity::read(home, std::nullopt);
    EXPECT_EQ(identity.gitName, "Second");
    EXPECT_EQ(identity.gitEmail, "first@x.org");
    EXPECT_EQ(identity.publicKeys, (std::vector<std::string>{"id_ed25519.pub", "id_rsa.pub"}));
    EXPECT_EQ(identity.agentSocket, std::nullopt);
}

TEST_F(DevTools, SshSummaryInEachState) {
    struct Case {
        std::optional<std::string> socket;
        int onDisk;
        int loaded;
        std::string text;
    } cases[] = {
        {std::nullopt, 2, 0, "No agent is running in this session, so a push has no key to offer."},
        {"/s", 0, 1, "The agent is holding 1 key(s)."},
        {"/s", 0, 0, "No keys in ~/.ssh and none loaded."},
        {"/s", 2, 0, "2 key(s) in ~/.ssh, but the agent is holding none — run ssh-add to load one."},
    };
    for (const auto& c : cases) {
        DevIdentity identity;
        identity.agentSocket = c.socket;
        identity.publicKeys.assign(static_cast<std::size_t>(c.onDisk), "k.pub");
        identity.agentKeys.assign(static_cast<std::size_t>(c.loaded), "k");
        EXPECT_EQ(identity.sshSummary(), c.text);
    }
    EXPECT_EQ(DevIdentity::parseAgentKeys("256 SHA256:abc me@host (ED25519)\nThe agent has no identities.\n"
                                          "3072 SHA256:def two words (RSA)\n"),
              (std::vector<std::string>{"me@host (ED25519)", "two words (RSA)"}));
}

TEST_F(DevTools, AgentKeysComeFromARealAgent) {
    fs::path socket = temp / "agent.sock";
    testing::ChildProcess agent({"/usr/bin/ssh-agent", "-D", "-a", socket.string()}, {{"PATH", "/usr/bin:/bin"}});
    ASSERT_TRUE(agent.waitForOutput("SSH_AUTH_SOCK", 10)) << agent.output();
    fs::path key = temp / "key";
    auto made = testing::runProcess({"/usr/bin/ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "tester@tavrick", "-f",
                                     key.string()},
                                    {{"PATH", "/usr/bin:/bin"}}, 20);
    ASSERT_EQ(made.status, 0) << made.output;
    EXPECT_TRUE(DevIdentity::readAgentKeys(10, socket.string(), byName).empty());
    auto added = testing::runProcess({"/usr/bin/ssh-add", key.string()},
                                     {{"PATH", "/usr/bin:/bin"}, {"SSH_AUTH_SOCK", socket.string()}}, 20);
    ASSERT_EQ(added.status, 0) << added.output;
    auto keys = DevIdentity::readAgentKeys(10, socket.string(), byName);
    EXPECT_EQ(keys, std::vector<std::string>{"tester@tavrick (ED25519)"});
    auto identity = DevIdentity::read(home, socket.string());
    identity.agentKeys = keys;
    EXPECT_EQ(identity.sshSummary(), "The agent is holding 1 key(s).");
    EXPECT_TRUE(DevIdentity::readAgentKeys(10, std::nullopt, byName).empty());
    agent.signal(SIGTERM);
    agent.wait(5);
}

TEST_F(DevTools, GitIdentityIsSetThroughGitAfterValidation) {
    std::vector<std::string> env{"HOME=" + home.string(), "XDG_CONFIG_HOME=" + (home / ".config").string(),
                                 "GIT_CONFIG_NOSYSTEM=1"};
    struct Case {
        std::string name;
        std::string email;
        GitIdentity::Result result;
    } cases[] = {
        {"  ", "a@b.co", GitIdentity::Result::failed("That is not a name.")},
        {"Ada", "not-an-address", GitIdentity::Result::failed("That is not an email address.")},
        {"Ada", "a@b", GitIdentity::Result::failed("That is not an email address.")},
        {"Ada", "a b@c.org", GitIdentity::Result::failed("That is not an email address.")},
        {"Ada", "@c.org", GitIdentity::Result::failed("That is not an email address.")},
        {" Ada Lovelace ", " ada@example.org ", GitIdentity::Result::done()},
    };
    for (const auto& c : cases) EXPECT_EQ(GitIdentity::set(c.name, c.email, byName, *log, env), c.result) << c.email;
    auto identity = DevIdentity::read(home, std::nullopt);
    EXPECT_EQ(identity.gitName, "Ada Lovelace");
    EXPECT_EQ(identity.gitEmail, "ada@example.org");
    EXPECT_NE(notes().find("set a global identity"), std::string::npos);
    auto none = [](const std::string&) -> std::optional<fs::path> { return std::nullopt; };
    EXPECT_EQ(GitIdentity::set("Ada", "a@b.co", none, *log, env).failure.rfind("git is not available: ", 0), 0u);
}

TEST(Hostname, RefusesWhatATaskCouldReadAsAnOption) {
    const std::pair<std::string, bool> cases[] = {
        {"example.org", true}, {" 127.0.0.1 ", true}, {"::1", true}, {"fe80::1", true},
        {"-oProxyCommand=x", false}, {"a b", false}, {"", false}, {"   ", false}, {"host;rm", false},
        {std::string(253, 'a'), true}, {std::string(254, 'a'), false}, {"é.org", false},
    };
    for (const auto& [text, valid] : cases) EXPECT_EQ(Hostname::isValid(text), valid) << text;
    EXPECT_EQ(NetworkTools::arguments(NetworkTool::ping, "h"), (std::vector<std::string>{"-c", "5", "-w", "10", "h"}));
}

TEST_F(DevTools, NetworkToolsRunForRealAgainstLoopbackWithinTheirLimits) {
    ToolRun runs(byName);
    EXPECT_EQ(runs.run(NetworkTool::ping, "a b", 5), "“a b” is not a hostname or an address.");
    ToolRun nowhere([](const std::string&) -> std::optional<fs::path> { return std::nullopt; });
    EXPECT_EQ(nowhere.run(NetworkTool::lookup, "localhost", 5), "/usr/bin/dig is not on this Mac.");
    auto trace = runs.run(NetworkTool::traceroute, "127.0.0.1", 20);
    EXPECT_NE(trace.find("127.0.0.1"), std::string::npos) << trace;
    // Five packets a second apart: a limit under that stops it and says so.
    auto ping = runs.run(NetworkTool::ping, "127.0.0.1", 1.5);
    EXPECT_NE(ping.find("127.0.0.1"), std::string::npos) << ping;
    EXPECT_TRUE(ping.ends_with("\n— stopped after 1.5s")) << ping;
}

TEST_F(DevTools, ASecondRunStopsTheFirstAndSilenceIsTold) {
    script("quiet", "exit 0");
    script("slow", "touch '" + (temp / "started").string() + "'; exec sleep 30");
    auto lookup = [this](const std::string& name) -> std::optional<fs::path> {
        return temp / "bin" / (name == executable(NetworkTool::ping) ? "slow" : "quiet");
    };
    ToolRun runs(lookup);
    std::string first;
    auto started = std::chrono::steady_clock::now();
    std::thread waiting([&] { first = runs.run(NetworkTool::ping, "127.0.0.1", 30); });
    // The first run is under way once its child has said so.
    for (int i = 0; i < 5000 && !fs::exists(temp / "started"); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_EQ(runs.run(NetworkTool::lookup, "example.org", 5), "DNS Lookup said nothing.");
    waiting.join();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
    EXPECT_EQ(first, "Ping said nothing.");
}

TEST_F(DevTools, RouterNameServersAndTheCacheFlush) {
    EXPECT_EQ(NetworkFacts::parseRouter("Iface\tDestination\tGateway\tFlags\n"
                                        "eth0\t0000A8C0\t00000000\t0001\n"
                                        "eth0\t00000000\t0101A8C0\t0003\n"),
              "192.168.1.1");
    EXPECT_EQ(NetworkFacts::parseRouter("Iface\tDestination\tGateway\n"), std::nullopt);
    EXPECT_EQ(NetworkFacts::parseNameServers("# x\nnameserver 127.0.0.53\nsearch lan\nnameserver ::1\n"),
              (std::vector<std::string>{"127.0.0.53", "::1"}));
    writeFile(temp / "route", "Iface\tDestination\tGateway\tFlags\nwlan0\t00000000\t0100000A\t0003\n");
    writeFile(temp / "resolv", "nameserver 10.0.0.1\n");
    auto facts = NetworkFacts::read(temp / "route", temp / "resolv");
    EXPECT_EQ(facts.router, "10.0.0.1");
    EXPECT_EQ(facts.dnsServers, std::vector<std::string>{"10.0.0.1"});
    for (const auto& [interface, address] : facts.addresses) EXPECT_NE(address, "127.0.0.1") << interface;

    const std::tuple<std::string, DNSCache::Result::Kind, std::string> cases[] = {
        {"exit 0", DNSCache::Result::Kind::flushed, "DNS cache flushed"},
        {"echo 'Call failed: Interactive authentication required.'; exit 1", DNSCache::Result::Kind::failed,
         "DNS flush failed: Call failed: Interactive authentication required."},
        {"echo 'error -128'; exit 1", DNSCache::Result::Kind::cancelled, "DNS flush cancelled at the password prompt"},
    };
    for (const auto& [body, kind, note] : cases) {
        auto tool = script("resolvectl", body);
        auto result = DNSCache::flush([&](const std::string&) -> std::optional<fs::path> { return tool; }, *log);
        EXPECT_EQ(result.kind, kind) << body;
        EXPECT_NE(notes().find(note), std::string::npos) << note;
    }
    auto missing = DNSCache::flush([](const std::string&) -> std::optional<fs::path> { return std::nullopt; }, *log);
    EXPECT_EQ(missing.kind, DNSCache::Result::Kind::failed);
    EXPECT_NE(notes().find("DNS flush failed: resolvectl is not on this system"), std::string::npos);
}

} // namespace
} // namespace tavrick
