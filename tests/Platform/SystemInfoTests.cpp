#include "Platform/Linux/LinuxDirectories.h"
#include "Platform/Linux/SystemInfo.h"
#include "Platform/Linux/TerminalToast.h"

#include <gtest/gtest.h>

using namespace tavrick;

TEST(SystemInfo, DistributionNameAndKernel) {
    EXPECT_EQ(SystemInfo::describe("NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n", "6.1.0-18-amd64"),
              "Debian GNU/Linux 12 (bookworm), kernel 6.1.0-18-amd64");
    EXPECT_EQ(SystemInfo::describe("PRETTY_NAME=Alpine\n", ""), "Alpine");
    EXPECT_EQ(SystemInfo::describe("", "6.1"), "Linux, kernel 6.1");
}

TEST(LinuxDirectories, XdgValuesWinOnlyWhenAbsolute) {
    EXPECT_EQ(LinuxDirectories::resolve("/x/data", "/home/a", ".local/share"), "/x/data");
    EXPECT_EQ(LinuxDirectories::resolve(nullptr, "/home/a", ".local/share"), "/home/a/.local/share");
    EXPECT_EQ(LinuxDirectories::resolve("", "/home/a", ".config"), "/home/a/.config");
    EXPECT_EQ(LinuxDirectories::resolve("relative/dir", "/home/a", ".config"), "/home/a/.config");
}

TEST(TerminalToast, OneLineTitleThenDetail) {
    EXPECT_EQ(TerminalToast::line("Tavrick is running", Toast::Kind::done, std::string("Using 12.3 MB of memory")),
              "✓ Tavrick is running — Using 12.3 MB of memory");
    EXPECT_EQ(TerminalToast::line("Tavrick is running", Toast::Kind::done, std::nullopt), "✓ Tavrick is running");
    EXPECT_EQ(TerminalToast::line("The note could not be saved", Toast::Kind::warning, std::string("")),
              "⚠︎ The note could not be saved");
}
