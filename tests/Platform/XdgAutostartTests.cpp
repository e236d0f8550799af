#include "CoreKit/LoginItem.h"
#include "CoreKit/ManualScheduler.h"
#include "Platform/Linux/XdgAutostart.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace tavrick;
using namespace tavrick::testing;

using XdgAutostart::entryStatus;

TEST(XdgAutostart, RegisterWritesAnEntryThatStartsThisProgramAndUnregisterRemovesIt) {
    TempDir dir;
    const auto entry = dir / "config/autostart/com.orvell.tavrick.desktop";
    const auto program = dir / "bin dir/tavrick";
    writeFile(program, "#!/bin/sh\n");
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);

    EXPECT_EQ(entryStatus(entry), 0);
    EXPECT_EQ(XdgAutostart::registerEntry(entry, program), std::nullopt);
    EXPECT_EQ(entryStatus(entry), 1);
    const std::string text = readFile(entry);
    EXPECT_NE(text.find("[Desktop Entry]"), std::string::npos);
    EXPECT_NE(text.find("Type=Application"), std::string::npos);
    // Quoted, since the path has a space.
    EXPECT_NE(text.find("Exec='" + program.string() + "'"), std::string::npos) << text;

    EXPECT_EQ(XdgAutostart::unregisterEntry(entry), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(entry));
    EXPECT_EQ(XdgAutostart::unregisterEntry(entry), std::nullopt);  // already gone is fine
    EXPECT_EQ(entryStatus(entry), 0);
}

TEST(XdgAutostart, TheStateIsWhatTheFileSays) {
    TempDir dir;
    const auto entry = dir / "com.orvell.tavrick.desktop";
    struct Case {
        const char* what;
        std::string contents;
        int expected;
    };
    const Case cases[] = {
        {"runnable", "[Desktop Entry]\nType=Application\nExec=/bin/sh -c true\n", 1},
        {"switched off by the desktop", "[Desktop Entry]\nExec=/bin/sh\nX-GNOME-Autostart-enabled=false\n", 0},
        {"hidden by the user", "[Desktop Entry]\nExec=/bin/sh\nHidden=true\n", 0},
        {"the program was moved", "[Desktop Entry]\nExec=/opt/gone/tavrick\n", 3},
        {"no command", "[Desktop Entry]\nType=Application\n", -1},
        {"not a desktop entry", "this is not an ini file\n", -1},
        {"unbalanced quotes", "[Desktop Entry]\nExec='/bin/sh\n", -1},
    };
    for (const auto& c : cases) {
        writeFile(entry, c.contents);
        EXPECT_EQ(entryStatus(entry), c.expected) << c.what;
    }
    // The controller turns those into its states, a moved copy into the retrying one.
    ManualScheduler scheduler;
    writeFile(entry, "[Desktop Entry]\nExec=/opt/gone/tavrick\n");
    LoginItemController controller(XdgAutostart::service(entry, "/bin/sh", nullptr), scheduler);
    controller.refresh();
    EXPECT_EQ(controller.state().get().kind, LoginItemState::Kind::unavailable);
    EXPECT_TRUE(controller.isRetryingNotFound());
    controller.setEnabled(true);
    EXPECT_TRUE(controller.state().get().isOn());
    controller.setEnabled(false);
    EXPECT_EQ(controller.state().get(), LoginItemState::disabled());
}

TEST(XdgAutostart, TheEntryLivesUnderTheConfigurationHome) {
    const char* saved = std::getenv("XDG_CONFIG_HOME");
    const std::string previous = saved ? saved : "";
    setenv("XDG_CONFIG_HOME", "/tmp/cfg", 1);
    EXPECT_EQ(XdgAutostart::defaultEntry(), "/tmp/cfg/autostart/com.orvell.tavrick.desktop");
    setenv("XDG_CONFIG_HOME", "relative/ignored", 1);
    EXPECT_EQ(XdgAutostart::defaultEntry().parent_path().parent_path().filename(), ".config");
    if (saved) {
        setenv("XDG_CONFIG_HOME", previous.c_str(), 1);
    } else {
        unsetenv("XDG_CONFIG_HOME");
    }
}
