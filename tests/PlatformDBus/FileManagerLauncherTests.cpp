// Reveal through a file manager that records, and the folder when it cannot.
#include "Platform/DBus/FileManagerLauncher.h"

#include "Platform/DBus/BusLoop.h"
#include "Platform/DBus/DesktopBus.h"
#include "PlatformDBus/Buses.h"
#include "Support/Eventually.h"

#include <gtest/gtest.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

struct FakeFileManager {
    explicit FakeFileManager(const std::string& address) : connection(address) {
        object = sdbus::createObject(*connection, "/org/freedesktop/FileManager1");
        object->registerMethod("ShowItems").onInterface("org.freedesktop.FileManager1").implementedAs(
            [this](const std::vector<std::string>& uris, const std::string& startup) {
                std::lock_guard lock(mutex);
                if (refuse) throw sdbus::Error("org.freedesktop.DBus.Error.Failed", "no window could be opened");
                shown.push_back(uris);
                startupIDs.push_back(startup);
            });
        object->finishRegistration();
        connection.run("org.freedesktop.FileManager1");
    }
    ~FakeFileManager() { connection.stop(); }
    ServiceConnection connection;
    std::unique_ptr<sdbus::IObject> object;
    std::mutex mutex;
    std::vector<std::vector<std::string>> shown;
    std::vector<std::string> startupIDs;
    bool refuse = false;
};

// The launcher underneath: records what reaches it.
struct RecordingLauncher final : DesktopLauncher {
    std::optional<std::string> applicationURL(const std::string& id) const override { return "app:" + id; }
    void openApplication(const std::string& url, std::function<void(std::optional<std::string>)> done) override {
        opened.push_back(url);
        done(std::nullopt);
    }
    std::optional<std::string> open(const URL& url) override {
        opened.push_back(url.absoluteString);
        return std::nullopt;
    }
    std::optional<std::string> reveal(const std::filesystem::path& path) override {
        revealed.push_back(path);
        return std::nullopt;
    }
    std::vector<std::string> opened;
    std::vector<std::filesystem::path> revealed;
};

} // namespace

TEST(FileManagerLauncher, SelectsTheFileOrFallsBackToTheFolder) {
    PrivateBus bus;
    if (bus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed";
    BusLoop loop;
    auto& connection = loop.adopt(sdbus::createSessionBusConnectionWithAddress(bus.address()));
    Notes notes;
    RecordingLauncher underneath;
    FileManagerLauncher launcher(loop, connection, underneath, notes.sink());

    struct Case {
        const char* name;
        bool managerThere, refuses;
        std::filesystem::path path;
        std::optional<std::string> shownURI; // what the file manager got, if anything
        std::string note;                    // a note containing this, when it fell back
    };
    const std::vector<Case> cases{
        {"a file with a space", true, false, "/home/ann/My Notes/plan.txt", "file:///home/ann/My%20Notes/plan.txt", ""},
        {"the manager errs", true, true, "/tmp/report.pdf", std::nullopt,
         "the file manager could not select the file (org.freedesktop.DBus.Error.Failed: no window could be opened); opening its folder instead"},
        {"no manager on the bus", false, false, "/tmp/report.pdf", std::nullopt,
         "the file manager could not select the file (org.freedesktop.DBus.Error.ServiceUnknown"},
    };
    for (const auto& c : cases) {
        std::unique_ptr<FakeFileManager> manager;
        if (c.managerThere) {
            manager = std::make_unique<FakeFileManager>(bus.address());
            manager->refuse = c.refuses;
        }
        const auto revealedBefore = underneath.revealed.size();
        EXPECT_EQ(launcher.reveal(c.path), std::nullopt) << c.name;
        if (c.shownURI) {
            ASSERT_EQ(manager->shown.size(), 1u) << c.name;
            EXPECT_EQ(manager->shown[0], std::vector<std::string>{*c.shownURI}) << c.name;
            EXPECT_EQ(manager->startupIDs[0], "") << c.name;
            EXPECT_EQ(underneath.revealed.size(), revealedBefore) << c.name;
        } else {
            ASSERT_EQ(underneath.revealed.size(), revealedBefore + 1) << c.name;
            EXPECT_EQ(underneath.revealed.back(), c.path) << c.name;
            EXPECT_TRUE(notes.contains(c.note)) << c.name;
        }
    }
    // A relative path is refused before anything is asked.
    EXPECT_EQ(launcher.reveal("notes/plan.txt"), std::string("not an absolute path: notes/plan.txt"));
    // Everything else passes through.
    EXPECT_EQ(launcher.applicationURL("org.gnome.Terminal"), "app:org.gnome.Terminal");
    EXPECT_EQ(launcher.open(URL{"https://example.com/"}), std::nullopt);
    EXPECT_EQ(underneath.opened, std::vector<std::string>{"https://example.com/"});

    // With the bus gone, the folder opens without a call.
    bus.stop();
    ASSERT_TRUE(eventually([&] { return !loop.isAlive(connection); }));
    EXPECT_EQ(launcher.reveal("/tmp/after.txt"), std::nullopt);
    EXPECT_EQ(underneath.revealed.back(), std::filesystem::path("/tmp/after.txt"));
    EXPECT_TRUE(notes.contains("(the session bus is gone); opening its folder instead"));
}

TEST(FileManagerLauncher, ChosenOnlyWhereAFileManagerIsOffered) {
    PrivateBus bus;
    if (bus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed";
    ScopedEnvironment session("DBUS_SESSION_BUS_ADDRESS", bus.address());
    Notes notes;
    RecordingLauncher underneath;
    auto desktop = DesktopBus::open(notes.sink());
    EXPECT_EQ(desktop->fileManager(underneath), nullptr);
    EXPECT_TRUE(notes.contains("reveal: opens the folder (no org.freedesktop.FileManager1 on the session bus)"));
    FakeFileManager manager(bus.address());
    EXPECT_NE(desktop->fileManager(underneath), nullptr);
    EXPECT_TRUE(notes.contains("reveal: selects the file through org.freedesktop.FileManager1"));
}
