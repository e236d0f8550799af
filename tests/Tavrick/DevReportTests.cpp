#include "DevToolsKit/DiskReclaim.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

namespace tavrick {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::writeFile;

TEST(DevReport, PrintsEachCacheWithItsSizeAndChangesNothing) {
    TempDir temp;
    fs::path home = temp / "home";
    fs::create_directories(home / ".cache/go-build/ab");
    writeFile(home / ".cache/go-build/ab/object", std::string(20000, 'o'));
    writeFile(home / ".gitconfig", "[user]\nname = Report Tester\nemail = report@example.org\n");
    auto size = DiskReclaim::size(home / ".cache/go-build");
    ASSERT_TRUE(size.has_value());
    auto result = testing::runProcess({TAVRICK_BINARY, "--dev-report"},
                                      {{"HOME", home.string()},
                                       {"PATH", "/usr/bin:/bin"},
                                       {"XDG_CONFIG_HOME", (temp / "config").string()},
                                       {"XDG_DATA_HOME", (temp / "data").string()}},
                                      60);
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find("  Go build cache  " + std::to_string(*size) + " bytes"), std::string::npos)
        << result.output;
    EXPECT_NE(result.output.find("  total " + std::to_string(*size) + " bytes\n"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("git: Report Tester <report@example.org>\n"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("ssh: No agent is running in this session"), std::string::npos) << result.output;
    EXPECT_EQ(testing::readFile(home / ".cache/go-build/ab/object").size(), 20000u);
}

} // namespace
} // namespace tavrick
