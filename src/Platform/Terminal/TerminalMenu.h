#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/MenuModel.h"
#include "Platform/Terminal/MenuNavigator.h"

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tavrick {

// What the terminal shows, as rows of text: the title bar, the lines of the current level
// (scrolled to keep the cursor in view), the latest status lines, and the key help or the
// field being typed into. Plain logic, drawn by `TerminalMenu`.
namespace MenuScreen {

inline constexpr int minimumRows = 8;
inline constexpr int minimumColumns = 30;

struct Row {
    std::string text;
    bool isCursor = false;
    bool isDim = false;
    friend bool operator==(const Row&, const Row&) = default;
};

// `status` oldest first; only the last few fit.
std::vector<Row> render(const MenuSnapshot& snapshot, MenuNavigator& navigator, int rows, int columns,
                        const std::deque<std::string>& status);

// `text` cut to `columns` terminal cells, counting each character as one cell.
std::string fitted(const std::string& text, int columns);

} // namespace MenuScreen

// The menu as a full-screen text menu in this terminal, drawn with ncurses over a `MenuSource`.
// Keys: arrows and Enter, a letter per line, Escape back, q to quit. While it is up, lines that
// would be printed (log lines, toasts, notifications) go to its status pane through `post`.
// The terminal is given back as it was on every way out: closing, Quit, a second Ctrl-C, and
// crash signals. Main queue only, except `post`.
class TerminalMenu {
public:
    // Takes the terminal on standard input and output. Nothing, and why, when either is not a
    // terminal or the terminal type is unknown.
    static std::unique_ptr<TerminalMenu> open(MenuSource& source, Scheduler& scheduler, std::string* why);
    ~TerminalMenu();
    TerminalMenu(const TerminalMenu&) = delete;
    TerminalMenu& operator=(const TerminalMenu&) = delete;

    // A line for the status pane, from any thread.
    void post(const std::string& line);
    // Opens the submenus `ids` (the settings, when something asks for them).
    void reveal(std::vector<std::string> ids);
    // "q" or the source's Quit.
    std::function<void()> onQuit;
    // The open submenus (top level first) and the line under the cursor, after a key or a reveal
    // moved them.
    std::function<void(const std::vector<std::string>& path, const std::string& cursor)> onMove;

    // Puts the terminal back as it was; safe to call more than once.
    void close();

    // The emergency exit: puts the terminal back with async-signal-safe calls only.
    static void restoreTerminalFromSignal();

    struct Core;

private:
    TerminalMenu() = default;
    std::shared_ptr<Core> core_;
};

} // namespace tavrick
