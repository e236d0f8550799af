// From an XTest key press to the bound action starting, on one private Xvfb: this program's
// engine (grab, tap, hand-off to the main queue) against sxhkd running `sh -c` for the same chord.
// The two take turns holding the chord, so each press has exactly one listener. Prints the medians
// and the ratio; exits 1 when this program is slower than sxhkd.
//
//   X11ShortcutBench [rounds=4] [presses-per-turn=40]
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/KeyCodes.h"
#include "CoreKit/Log.h"
#include "HotkeyEngine/HotkeyEngine.h"
#include "Platform/X11/X11Connection.h"
#include "Platform/X11/X11EventSystem.h"

#include <xcb/xcb_keysyms.h>
#include <xcb/xtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using SteadyClock = std::chrono::steady_clock;

pid_t spawn(const std::vector<std::string>& arguments, const std::vector<std::string>& extraEnvironment = {},
            int stdoutFd = -1) {
    std::vector<char*> argv;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    std::vector<std::string> environment;
    for (char** entry = environ; *entry; ++entry) environment.emplace_back(*entry);
    environment.insert(environment.end(), extraEnvironment.begin(), extraEnvironment.end());
    std::vector<char*> envp;
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdoutFd >= 0) posix_spawn_file_actions_adddup2(&actions, stdoutFd, 1);
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (devNull >= 0) posix_spawn_file_actions_adddup2(&actions, devNull, 2);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    if (devNull >= 0) ::close(devNull);
    return pid;
}

void stop(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    int status = 0;
    ::waitpid(pid, &status, 0);
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const auto middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<std::size_t>(p * values.size()))];
}

// The user's keyboard: XTest on a connection of its own.
class Keyboard {
public:
    explicit Keyboard(const std::string& display) {
        c_ = xcb_connect(display.c_str(), nullptr);
        symbols_ = xcb_key_symbols_alloc(c_);
    }
    ~Keyboard() {
        xcb_key_symbols_free(symbols_);
        xcb_disconnect(c_);
    }
    xcb_keycode_t code(xcb_keysym_t keysym) {
        auto* codes = xcb_key_symbols_get_keycode(symbols_, keysym);
        const xcb_keycode_t code = codes ? codes[0] : 0;
        std::free(codes);
        return code;
    }
    // Ctrl and Alt down, then the key: the moment the key press leaves is returned.
    SteadyClock::time_point press(xcb_keycode_t control, xcb_keycode_t alt, xcb_keycode_t key) {
        xcb_test_fake_input(c_, XCB_KEY_PRESS, control, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        xcb_test_fake_input(c_, XCB_KEY_PRESS, alt, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        sync();
        xcb_test_fake_input(c_, XCB_KEY_PRESS, key, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        const auto sent = SteadyClock::now();
        xcb_flush(c_);
        return sent;
    }
    void release(xcb_keycode_t control, xcb_keycode_t alt, xcb_keycode_t key) {
        for (auto code : {key, alt, control}) xcb_test_fake_input(c_, XCB_KEY_RELEASE, code, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        sync();
    }
    void sync() { std::free(xcb_get_input_focus_reply(c_, xcb_get_input_focus(c_), nullptr)); }

private:
    xcb_connection_t* c_ = nullptr;
    xcb_key_symbols_t* symbols_ = nullptr;
};

} // namespace

int main(int argc, char** argv) {
    using namespace tavrick;
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 4;
    const int presses = argc > 2 ? std::max(1, std::atoi(argv[2])) : 40;
    Log::setMinimumLevel(LogLevel::error);

    const auto directory = std::filesystem::temp_directory_path() / ("tavrick-shortcut-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory);
    int displayPipe[2];
    if (::pipe(displayPipe) != 0) return 2;
    const pid_t server = spawn({"Xvfb", "-displayfd", std::to_string(displayPipe[1]), "-screen", "0", "1280x800x24",
                                "-nolisten", "tcp"});
    ::close(displayPipe[1]);
    std::string number;
    char ch = 0;
    while (::read(displayPipe[0], &ch, 1) == 1 && ch != '\n') number += ch;
    ::close(displayPipe[0]);
    if (server <= 0 || number.empty()) {
        std::cerr << "Xvfb did not start\n";
        stop(server);
        return 2;
    }
    const std::string display = ":" + number;
    ::setenv("DISPLAY", display.c_str(), 1);

    // sxhkd writes a line into a FIFO through the shell it starts: the line's arrival is its
    // command starting.
    const auto fifo = directory / "fired";
    ::mkfifo(fifo.c_str(), 0600);
    const int fifoRead = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int fifoKeep = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);  // keeps the FIFO open between writers
    {
        std::ofstream config(directory / "sxhkdrc");
        config << "ctrl + alt + j\n    echo x > " << fifo.string() << "\n";
    }

    auto scheduler = &DispatchScheduler::shared();
    auto log = DiagnosticLog::make(directory / "logs", *scheduler);
    std::string failure;
    auto connection = X11Connection::open(display, &failure);
    if (!connection) {
        std::cerr << failure << "\n";
        stop(server);
        return 2;
    }
    X11EventSystem events(std::move(connection));
    Keyboard keyboard(display);
    const auto control = keyboard.code(0xffe3), alt = keyboard.code(0xffe9), key = keyboard.code('j');

    Mapping mapping;
    mapping.id = UUID::random();
    mapping.name = "Bench ⌃⌥J";
    mapping.trigger = Trigger::hotkey(HotkeySpec{38 /* J */, Modifiers::control | Modifiers::option});
    mapping.action = ActionSpec::toggleAwake();

    std::vector<double> ours, theirs;
    int oursMissed = 0, theirsMissed = 0;
    std::atomic<std::int64_t> firedAt{0};
    for (int round = 0; round < rounds; ++round) {
        {
            // This program's turn: the action starts where the coordinator's would, on the main queue.
            HotkeyEngine engine(events, *scheduler, *log);
            engine.update({mapping});
            engine.setOnTrigger([&firedAt, scheduler](const Mapping&) {
                scheduler->async([&firedAt] { firedAt = SteadyClock::now().time_since_epoch().count(); });
            });
            engine.start();
            events.sync();
            for (int i = 0; i < presses; ++i) {
                firedAt = 0;
                const auto sent = keyboard.press(control, alt, key);
                const auto deadline = sent + std::chrono::seconds(2);
                while (firedAt == 0 && SteadyClock::now() < deadline) scheduler->runMainFor(0.0002);
                if (firedAt) {
                    ours.push_back(std::chrono::duration<double, std::micro>(SteadyClock::duration(firedAt.load()) -
                                                                             sent.time_since_epoch())
                                       .count());
                } else {
                    ++oursMissed;
                }
                keyboard.release(control, alt, key);
                events.sync();
            }
            engine.stop();
            events.sync();
        }
        {
            // sxhkd's turn, with the chord free again.
            const pid_t daemon = spawn({"sxhkd", "-c", (directory / "sxhkdrc").string()}, {"SHELL=/bin/sh"});
            char drain[256];
            // Ready once a press gets through.
            bool ready = false;
            for (int attempt = 0; attempt < 200 && !ready; ++attempt) {
                keyboard.press(control, alt, key);
                keyboard.release(control, alt, key);
                pollfd fd{fifoRead, POLLIN, 0};
                ready = ::poll(&fd, 1, 25) > 0;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            while (::read(fifoRead, drain, sizeof drain) > 0) {
            }
            if (!ready) {
                std::cerr << "sxhkd never answered the chord\n";
                stop(daemon);
                break;
            }
            for (int i = 0; i < presses; ++i) {
                const auto sent = keyboard.press(control, alt, key);
                pollfd fd{fifoRead, POLLIN, 0};
                if (::poll(&fd, 1, 2000) > 0) {
                    const auto heard = SteadyClock::now();
                    theirs.push_back(std::chrono::duration<double, std::micro>(heard - sent).count());
                    while (::read(fifoRead, drain, sizeof drain) > 0) {
                    }
                } else {
                    ++theirsMissed;
                }
                keyboard.release(control, alt, key);
            }
            stop(daemon);
        }
    }
    ::close(fifoRead);
    ::close(fifoKeep);
    stop(server);
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);

    const double oursMedian = median(ours), theirsMedian = median(theirs);
    std::printf("press to action, %d rounds of %d presses each, in turns on one Xvfb\n", rounds, presses);
    std::printf("  tavrick (grab, tap, main queue): median %8.1f µs  p90 %8.1f µs  (%zu heard, %d missed)\n", oursMedian,
                percentile(ours, 0.9), ours.size(), oursMissed);
    std::printf("  sxhkd (grab, sh -c):             median %8.1f µs  p90 %8.1f µs  (%zu heard, %d missed)\n",
                theirsMedian, percentile(theirs, 0.9), theirs.size(), theirsMissed);
    if (ours.empty() || theirs.empty()) return 2;
    const double ratio = oursMedian / theirsMedian;
    std::printf("  ratio tavrick/sxhkd: %.3f (%s)\n", ratio, ratio <= 1.0 ? "at least as fast" : "SLOWER");
    return ratio <= 1.0 ? 0 : 1;
}
