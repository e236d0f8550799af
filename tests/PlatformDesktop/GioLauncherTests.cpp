#include "Platform/Linux/GioLauncher.h"
#include "Support/Eventually.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

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
        std::filesystem::create_directories(applications);
        std::filesystem::create_directories(root / "data/applications");
        std::filesystem::create_directories(root / "config");
        const auto script = root / "mark.sh";
        write(script, "#!/bin/sh\necho \"${*:-launched}\" >> \"" + (root / "marker").string() + "\"\n");
        std::filesystem::permissions(script, std::filesystem::perms::owner_all);

        write(applications / "org.example.Marker.desktop",
              "[Desktop Entry]\nType=Application\nName=Marker\nExec=" + script.string() + "\n");
        write(applications / "org.example.NoCommand.desktop", "[Desktop Entry]\nType=Application\nName=Nothing\n");
        write(applications / "org.example.Opener.desktop",
              "[Desktop Entry]\nType=Application\nName=Opener\nExec=" + script.string() +
                  " %u\nMimeType=x-scheme-handler/tavrick-test;inode/directory;\n");
        write(root / "config/mimeapps.list",
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
    static void write(const std::filesystem::path& path, const std::string& text) {
        std::ofstream(path) << text;
    }
    std::string marker() const {
        std::error_code error;
        if (!std::filesystem::exists(root / "marker", error)) return "";
        return readFile(root / "marker");
    }
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
    const char* display = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    const std::string savedDisplay = display ? display : "";
    const std::string savedWayland = wayland ? wayland : "";
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    EXPECT_FALSE(GioLauncher::hasDesktopSession());
    setenv("DISPLAY", "", 1);
    EXPECT_FALSE(GioLauncher::hasDesktopSession());
    setenv("DISPLAY", ":0", 1);
    EXPECT_TRUE(GioLauncher::hasDesktopSession());
    unsetenv("DISPLAY");
    setenv("WAYLAND_DISPLAY", "wayland-0", 1);
    EXPECT_TRUE(GioLauncher::hasDesktopSession());
    display ? setenv("DISPLAY", savedDisplay.c_str(), 1) : unsetenv("DISPLAY");
    wayland ? setenv("WAYLAND_DISPLAY", savedWayland.c_str(), 1) : unsetenv("WAYLAND_DISPLAY");
}
