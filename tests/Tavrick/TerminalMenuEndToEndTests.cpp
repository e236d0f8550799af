// The terminal menu driven as a person would, through tmux: keys in, the screen read back.
#include "Support/Eventually.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>

using namespace tavrick::testing;

namespace {

const std::string binary = TAVRICK_BINARY;
// Real processes under the sanitizers: the deferred start alone is three seconds.
constexpr double patience = 60;

// One private tmux server with one pane that runs the program.
class Tmux {
public:
    Tmux(const TempDir& root, int columns, int rows) : root_(root), socket_((root / "tmux.sock").string()) {
        environment_ = isolatedEnvironment(root.path());
        environment_["TERM"] = "screen";
        auto created = run({"new-session", "-d", "-s", "menu", "-x", std::to_string(columns), "-y", std::to_string(rows),
                            "sh"});
        if (created.status != 0) ADD_FAILURE() << "tmux did not start: " << created.output;
        run({"set-option", "-t", "menu", "remain-on-exit", "on"});
    }
    ~Tmux() { run({"kill-server"}); }

    // Starts (or starts again) the program in the pane, the shell's place taken.
    void launch() {
        std::string command = "exec env -i";
        for (const auto& [name, value] : environment_) command += " " + name + "='" + value + "'";
        command += " " + binary + " 2>&1";
        auto result = run({"respawn-pane", "-k", "-t", "menu", command});
        EXPECT_EQ(result.status, 0) << result.output;
    }
    // Keeps every byte the program writes from now on, to read back with `written`.
    void record() { run({"pipe-pane", "-t", "menu", "cat > '" + (root_ / "written").string() + "'"}); }
    std::string written() { return readFile(root_ / "written"); }
    std::string screen() { return run({"capture-pane", "-p", "-t", "menu"}).output; }
    std::string format(const std::string& f) {
        auto out = run({"display-message", "-p", "-t", "menu", f}).output;
        while (!out.empty() && out.back() == '\n') out.pop_back();
        return out;
    }
    void keys(std::vector<std::string> keys) {
        keys.insert(keys.begin(), {"send-keys", "-t", "menu"});
        run(keys);
    }
    void resize(int columns, int rows) {
        run({"resize-window", "-t", "menu", "-x", std::to_string(columns), "-y", std::to_string(rows)});
    }
    bool shows(const std::string& text, double seconds = patience) {
        return eventually([&] { return screen().find(text) != std::string::npos; }, seconds);
    }
    // The letter the menu gives the line whose title contains `title`: the second character of
    // its row (" s  Start").
    std::string letterOf(const std::string& title) {
        std::istringstream in(screen());
        for (std::string line; std::getline(in, line);) {
            if (line.find(title) != std::string::npos && line.size() > 2 && line[0] == ' ' && line[1] != ' ') {
                return std::string(1, line[1]);
            }
        }
        ADD_FAILURE() << "no line with " << title << " in\n" << screen();
        return "";
    }
    // The row on which `text` first appears; -1 when it does not.
    int rowOf(const std::string& text) {
        std::istringstream in(screen());
        int row = 0;
        for (std::string line; std::getline(in, line); ++row) {
            if (line.find(text) != std::string::npos) return row;
        }
        return -1;
    }
    bool ended() {
        return eventually([&] { return format("#{pane_dead}") == "1"; }, patience);
    }

private:
    ProcessResult run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"/usr/bin/tmux", "-u", "-S", socket_, "-f", "/dev/null"});
        return runProcess(arguments, environment_, 30);
    }
    const TempDir& root_;
    std::string socket_;
    std::map<std::string, std::string> environment_;
};

} // namespace

TEST(TerminalMenu, SectionsReorderFromSettingsAndTheOrderSurvivesARestart) {
    TempDir root;
    Tmux tmux(root, 110, 90);
    tmux.launch();
    ASSERT_TRUE(tmux.shows("Shortcuts & Gestures Enabled")) << tmux.screen();
    // The full screen belongs to the menu while it is up.
    EXPECT_EQ(tmux.format("#{alternate_on}"), "1");
    EXPECT_LT(tmux.rowOf("Shortcuts & Gestures Enabled"), tmux.rowOf("Pomodoro stopped"));
    EXPECT_LT(tmux.rowOf("Pomodoro stopped"), tmux.rowOf("Settings  ›"));
    EXPECT_LT(tmux.rowOf("Settings  ›"), tmux.rowOf("Check for Updates…"));
    EXPECT_LT(tmux.rowOf("Check for Updates…"), tmux.rowOf("Quit"));

    tmux.keys({tmux.letterOf("Settings  ›")});
    ASSERT_TRUE(tmux.shows("› Settings")) << tmux.screen();
    tmux.keys({tmux.letterOf("Reorder Sections")});
    ASSERT_TRUE(tmux.shows("Settings and Quit always stay at the bottom.")) << tmux.screen();
    tmux.keys({tmux.letterOf(" pomodoro  ›")});
    ASSERT_TRUE(tmux.shows("Timer status, start, pause and skip")) << tmux.screen();
    const auto up = tmux.letterOf("Move Up");
    // Three moves typed faster than the menu draws: each one lands, in order.
    tmux.keys({up, up, up, "Escape", "Escape", "Escape"});
    ASSERT_TRUE(eventually([&] {
        const int pomodoro = tmux.rowOf("Pomodoro stopped");
        return pomodoro > 0 && pomodoro < tmux.rowOf("Shortcuts & Gestures Enabled");
    }, patience)) << tmux.screen();

    tmux.keys({"q"});
    ASSERT_TRUE(tmux.ended());
    // The terminal is the user's again, with what was printed before the menu.
    EXPECT_EQ(tmux.format("#{alternate_on}"), "0");
    EXPECT_NE(tmux.screen().find("Tavrick stopped."), std::string::npos) << tmux.screen();

    tmux.launch();
    ASSERT_TRUE(tmux.shows("Shortcuts & Gestures Enabled")) << tmux.screen();
    EXPECT_LT(tmux.rowOf("Pomodoro stopped"), tmux.rowOf("Shortcuts & Gestures Enabled")) << tmux.screen();
    tmux.keys({"q"});
    ASSERT_TRUE(tmux.ended());
    const std::string log = readFile(root / "data/com.orvell.tavrick/tavrick.log");
    EXPECT_NE(log.find("[menu] chose settings.menuBarItems.pomodoro.up"), std::string::npos) << log;
    EXPECT_NE(log.find("[menu] layout saved — nothing hidden"), std::string::npos);
    EXPECT_NE(log.find("[menu] terminal menu closed"), std::string::npos);
    // Settings in view bring the program out of the menu bar; leaving them sends it back.
    const auto shown = log.find("[window] a window is open — showing in the Dock");
    ASSERT_NE(shown, std::string::npos) << log;
    EXPECT_NE(log.find("[window] no windows left — back to the menu bar only", shown), std::string::npos) << log;
}

TEST(TerminalMenu, CommandsActWithLiveStateAndToastsLandInTheStatusLines) {
    TempDir root;
    Tmux tmux(root, 110, 90);
    tmux.launch();
    ASSERT_TRUE(tmux.shows("Pomodoro stopped")) << tmux.screen();
    tmux.keys({tmux.letterOf("Start Focus  ›")});
    ASSERT_TRUE(tmux.shows("› Start Focus")) << tmux.screen();
    tmux.keys({tmux.letterOf("5 minutes"), "Escape"});
    // The countdown runs on its own, without a key.
    ASSERT_TRUE(tmux.shows("Focus · 4:5")) << tmux.screen();
    EXPECT_TRUE(tmux.shows("Pause"));
    // A setting typed in: refused text says why and changes nothing.
    tmux.keys({tmux.letterOf("Settings  ›")});
    ASSERT_TRUE(tmux.shows("Clipboard Items Kept: 100")) << tmux.screen();
    tmux.keys({tmux.letterOf("Clipboard Items Kept"), "BSpace", "BSpace", "BSpace", "x", "Enter"});
    EXPECT_TRUE(tmux.shows("Clipboard Items Kept was not changed — “x” is not a whole number")) << tmux.screen();
    tmux.keys({tmux.letterOf("Clipboard Items Kept"), "BSpace", "BSpace", "BSpace", "9", "0", "0", "Enter"});
    EXPECT_TRUE(tmux.shows("Clipboard Items Kept: 500")) << tmux.screen();
    tmux.keys({"q"});
    ASSERT_TRUE(tmux.ended());
    const std::string log = readFile(root / "data/com.orvell.tavrick/tavrick.log");
    EXPECT_NE(log.find("[menu] chose pomodoro.focus.5"), std::string::npos) << log;
    EXPECT_NE(log.find("[menu] refused a value for settings.clipboardMaximumItems"), std::string::npos);
    EXPECT_NE(log.find("[awake] keep-awake on"), std::string::npos);
}

TEST(TerminalMenu, ATerminalTooSmallSaysSoAndTheMenuComesBackWhenItGrows) {
    TempDir root;
    Tmux tmux(root, 100, 60);
    tmux.launch();
    ASSERT_TRUE(tmux.shows("Shortcuts & Gestures Enabled")) << tmux.screen();
    tmux.resize(28, 6);
    EXPECT_TRUE(tmux.shows("Terminal too small")) << tmux.screen();
    tmux.resize(100, 60);
    EXPECT_TRUE(tmux.shows("Shortcuts & Gestures Enabled")) << tmux.screen();
    EXPECT_EQ(tmux.screen().find("Terminal too small"), std::string::npos);
    tmux.keys({"q"});
    ASSERT_TRUE(tmux.ended());
}

TEST(TerminalMenu, ACrashSignalOrASecondInterruptGivesTheTerminalBack) {
    for (const std::string how : {"crash", "interrupt"}) {
        TempDir root;
        Tmux tmux(root, 100, 60);
        tmux.launch();
        ASSERT_TRUE(tmux.shows("Shortcuts & Gestures Enabled")) << tmux.screen();
        ASSERT_EQ(tmux.format("#{alternate_on}"), "1");
        tmux.record();
        const pid_t pid = std::stoi(tmux.format("#{pane_pid}"));
        if (how == "crash") {
            ::kill(pid, SIGSEGV);
        } else {
            // The first asks for a clean end; the second, at once, ends it there and then.
            ::kill(pid, SIGINT);
            ::kill(pid, SIGINT);
        }
        ASSERT_TRUE(tmux.ended()) << how;
        EXPECT_EQ(tmux.format("#{alternate_on}"), "0") << how;
        // The cursor the menu hid is shown again: the last word about it says so.
        ASSERT_TRUE(eventually([&] { return tmux.written().find("\x1b[?25h") != std::string::npos; }, patience)) << how;
        const auto bytes = tmux.written();
        const auto hidden = bytes.rfind("\x1b[?25l");
        EXPECT_TRUE(hidden == std::string::npos || hidden < bytes.rfind("\x1b[?25h")) << how;
    }
}

TEST(TerminalMenu, AStoredLayoutThatIsNotJSONGivesTheDefaultOrderAndSaysSo) {
    TempDir root;
    std::filesystem::create_directories(root / "config/com.orvell.tavrick");
    // "not json", as the stored bytes.
    std::ofstream(root / "config/com.orvell.tavrick/defaults.json") << R"({"menuBarItems": {"$data": "bm90IGpzb24="}})";
    Tmux tmux(root, 110, 90);
    tmux.launch();
    ASSERT_TRUE(tmux.shows("Shortcuts & Gestures Enabled")) << tmux.screen();
    EXPECT_LT(tmux.rowOf("Shortcuts & Gestures Enabled"), tmux.rowOf("Pomodoro stopped"));
    EXPECT_LT(tmux.rowOf("Pomodoro stopped"), tmux.rowOf("No vault on this Mac yet"));
    tmux.keys({"q"});
    ASSERT_TRUE(tmux.ended());
    EXPECT_NE(tmux.screen().find("The stored menu layout (8 bytes) could not be read; using the default layout"),
              std::string::npos)
        << tmux.screen();
    // Nothing was chosen, so the unreadable value is still there for the user to recover.
    EXPECT_NE(readFile(root / "config/com.orvell.tavrick/defaults.json").find("bm90IGpzb24="), std::string::npos);
}
