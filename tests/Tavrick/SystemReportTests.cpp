#include "DevToolsKit/ManagedPathBlock.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <csignal>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

// The report a user asks for from a terminal: this machine's readings, a server the user
// started, and the search path their login shell builds, with Tavrick's own row marked.
TEST(SystemReport, ShowsReadingsServersAndTheExplainedPath) {
    TempDir root;
    auto environment = isolatedEnvironment(root.path());
    environment["SHELL"] = "/usr/bin/zsh";
    std::filesystem::create_directories(root / "home");
    ASSERT_TRUE(ManagedPathBlock::setFolders({(root / "home/gone/bin").string()}, root / "home/.zprofile", nullptr));
    ChildProcess server({"/usr/bin/python3", "-c",
                         "import socket,time\ns=socket.socket(); s.bind(('127.0.0.1',0)); s.listen(); "
                         "print(s.getsockname()[1], flush=True)\nwhile True: time.sleep(1)\n"},
                        {{"PATH", "/usr/bin:/bin"}});
    ASSERT_TRUE(server.waitForOutput("\n", 20));
    const auto port = std::to_string(std::stoi(server.output()));

    auto report = runProcess({TAVRICK_BINARY, "--system-report"}, environment, 60);
    EXPECT_EQ(report.status, 0) << report.output;
    for (const std::string& expected : {std::string("memory   : "), std::string("disk     : "),
                                        "  Python  python3  port " + port + "\n",
                                        (root / "home/gone/bin").string() + "  — added by Tavrick; Remove takes it out of that block in ~/.zprofile"}) {
        EXPECT_NE(report.output.find(expected), std::string::npos) << expected << "\n" << report.output;
    }
}

TEST(SystemReport, StopServerEndsTheListedProcessOnly) {
    TempDir root;
    auto environment = isolatedEnvironment(root.path());
    ChildProcess server({"/usr/bin/python3", "-u", "-m", "http.server", "0", "--bind", "127.0.0.1"}, {{"PATH", "/usr/bin:/bin"}});
    ASSERT_TRUE(server.waitForOutput("Serving HTTP", 20));
    // The pid is the child's own: ChildProcess runs python3 directly.
    auto listed = runProcess({TAVRICK_BINARY, "--system-report"}, environment, 60);
    auto at = listed.output.find("  Python  python3  port ");
    ASSERT_NE(at, std::string::npos) << listed.output;
    auto lineStart = listed.output.rfind('\n', at) + 1;
    auto pid = listed.output.substr(lineStart + 2, at - lineStart - 2);
    auto stopped = runProcess({TAVRICK_BINARY, "--stop-server", pid}, environment, 60);
    EXPECT_EQ(stopped.status, 0) << stopped.output;
    EXPECT_NE(stopped.output.find("stopped: python3 stopped.\n"), std::string::npos) << stopped.output;
    EXPECT_EQ(server.wait(10), 128 + SIGTERM);
    auto again = runProcess({TAVRICK_BINARY, "--stop-server", pid}, environment, 60);
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.output.find("No process of yours with pid " + pid + " is listening on a TCP port."), std::string::npos);
}

} // namespace
