#include "Platform/Linux/GioLauncher.h"
#include "Support/Eventually.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

// GIO looks for desktop entries once a process, along the XDG folders, so this program points
// them at a folder of its own before anything else runs, and every test shares it. The entries'
// command appends its arguments to "marker", so a launch is proved by a program that really ran.
struct DesktopFolders {
    std::filesystem::path root;

    DesktopFolders() {
        char pattern[] = "/tmp/tavrick-gio-XXXXXX";
        root = ::mkdtemp(pattern);
        const auto applications = root / "dirs/applications";
        std::filesystem::create_directories(root / "data/applications");
        const auto script = root / "mark.sh";
        writeFile(script, "#!/bin/sh\necho \"${*:-launched}\" >> \"" + (root / "marker").string() + "\"\n");
        std::filesystem::permissions(script, std::filesystem::perms::owner_all);

        writeFile(applications / "org.example.Marker.desktop",
                  "[Desktop Entry]\nType=Application\nName=Marker\nExec=" + script.string() + "\n");
        writeFile(applications / "org.example.NoCommand.desktop", "[Desktop Entry]\nType=Application\nName=Nothing\n");
        writeFile(applications / "org.example.Opener.desktop",
                  "[Desktop Entry]\nType=Application\nName=Opener\nExec=" + script.string() +
                      " %u\nMimeType=x-scheme-handler/tavrick-test;inode/directory;\n");
        writeFile(root / "config/mimeapps.list",
                  "[Default Applications]\nx-scheme-handler/tavrick-test=org.example.Opener.desktop\n"
                  "inode/directory=org.example.Opener.desktop\n");

        setenv("XDG_DATA_DIRS", (root / "dirs").c_str(), 1);
        setenv("XDG_DATA_HOME", (root / "data").c_str(), 1);
        setenv("XDG_CONFIG_HOME", (root / "config").c_str(), 1);
        setenv("XDG_CONFIG_DIRS", (root / "config").c_str(), 1);
        // No session bus: GIO must not wait on one.
        setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 1);
        setenv("GIO_USE_VFS", "local", 1);
    }
    ~DesktopFolders() {
        std::error_code error;
        std::filesystem::remove_all(root, error);
    }
    std::string marker() const { return readFile(root / "marker"); }  // "" before anything ran
    void clearMarker() const {
        std::error_code error;
        std::filesystem::remove(root / "marker", error);
    }
};

DesktopFolders& folders() {
    static DesktopFolders instance;
    return instance;
}
// Before main, before any test touches GIO.
const bool prepared = (folders(), true);

} // namespace

TEST(GioLauncher, AnApplicationIsFoundByItsDesktopEntryIdAndReallyStarts) {
    ASSERT_TRUE(prepared);
    folders().clearMarker();
    GioLauncher launcher;
    auto url = launcher.applicationURL("org.example.Marker");
    ASSERT_TRUE(url);
    EXPECT_EQ(*url, (folders().root / "dirs/applications/org.example.Marker.desktop").string());

    std::optional<std::string> failure = "not called";
    launcher.openApplication(*url, [&](std::optional<std::string> f) { failure = f; });
    EXPECT_EQ(failure, std::nullopt);
    EXPECT_TRUE(eventually([] { return folders().marker() == "launched\n"; })) << folders().marker();
}

TEST(GioLauncher, UnknownIdsAndEntriesWithoutACommandAreNoApplication) {
    GioLauncher launcher;
    EXPECT_EQ(launcher.applicationURL("org.example.NoCommand"), std::nullopt);
    EXPECT_EQ(launcher.applicationURL("org.example.Missing"), std::nullopt);
    EXPECT_EQ(launcher.applicationURL(""), std::nullopt);
    EXPECT_EQ(launcher.applicationURL("../../etc/passwd"), std::nullopt);

    std::optional<std::string> failure;
    launcher.openApplication((folders().root / "dirs/applications/org.example.NoCommand.desktop").string(),
                             [&](std::optional<std::string> f) { failure = f; });
    ASSERT_TRUE(failure);
    EXPECT_NE(failure->find("is not a desktop entry that can be started"), std::string::npos);
}

TEST(GioLauncher, AURLGoesToTheHandlerOfItsScheme) {
    folders().clearMarker();
    GioLauncher launcher;
    EXPECT_EQ(launcher.open(URL{"tavrick-test://hello/world"}), std::nullopt);
    EXPECT_TRUE(eventually([] { return folders().marker() == "tavrick-test://hello/world\n"; })) << folders().marker();
    EXPECT_TRUE(launcher.open(URL{"file:///no/such/file/anywhere"}).has_value());
}

TEST(GioLauncher, RevealOpensTheContainingFolderInTheFileManager) {
    folders().clearMarker();
    TempDir dir;
    writeFile(dir / "report.pdf", "%PDF");
    GioLauncher launcher;
    EXPECT_EQ(launcher.reveal(dir / "report.pdf"), std::nullopt);
    // A local folder may reach the handler as a path, as the desktop entry rules allow.
    const std::string expected = dir.path().string() + "\n";
    EXPECT_TRUE(eventually([&] { return folders().marker() == expected; })) << folders().marker();
}

TEST(GioLauncher, ADesktopSessionIsADisplayServerNamedInTheEnvironment) {
    const char* names[] = {"DISPLAY", "WAYLAND_DISPLAY"};
    std::optional<std::string> saved[2];
    for (int i = 0; i < 2; ++i)
        if (const char* v = std::getenv(names[i])) saved[i] = v;
    struct Case {
        const char* display;
        const char* wayland;
        bool expected;
    };
    for (const auto& c : {Case{nullptr, nullptr, false}, Case{"", nullptr, false}, Case{":0", nullptr, true},
                          Case{nullptr, "wayland-0", true}}) {
        c.display ? setenv("DISPLAY", c.display, 1) : unsetenv("DISPLAY");
        c.wayland ? setenv("WAYLAND_DISPLAY", c.wayland, 1) : unsetenv("WAYLAND_DISPLAY");
        EXPECT_EQ(GioLauncher::hasDesktopSession(), c.expected) << (c.display ? c.display : "-") << " "
                                                                << (c.wayland ? c.wayland : "-");
    }
    for (int i = 0; i < 2; ++i) saved[i] ? setenv(names[i], saved[i]->c_str(), 1) : unsetenv(names[i]);
}
