#include "Platform/Terminal/TerminalMenu.h"

#include <curses.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <clocale>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <fcntl.h>
#include <langinfo.h>
#include <mutex>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

// ncurses defines these as macros; they would shadow our own names below.
#undef clear
#undef erase
#undef move
#undef refresh
#undef timeout

namespace tavrick {

namespace MenuScreen {

namespace {

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// U+FE0E and U+FE0F choose how the character before them looks and take no cell of their own.
bool isVariationSelector(const std::string& text, std::size_t i) {
    return i + 2 < text.size() && static_cast<unsigned char>(text[i]) == 0xEF &&
           static_cast<unsigned char>(text[i + 1]) == 0xB8 &&
           (static_cast<unsigned char>(text[i + 2]) == 0x8E || static_cast<unsigned char>(text[i + 2]) == 0x8F);
}

std::string marker(const MenuEntry& e) {
    switch (e.kind) {
    case MenuEntry::Kind::toggle: return e.isOn ? "[x] " : "[ ] ";
    default: return "";
    }
}

std::string lineText(const MenuEntry& e, char letter) {
    if (e.kind == MenuEntry::Kind::separator) return "  ────────────────";
    if (e.kind == MenuEntry::Kind::label) return "      " + e.title;
    std::string text = std::string(" ") + (letter ? letter : ' ') + "  " + marker(e) + e.title;
    if (e.kind == MenuEntry::Kind::submenu) text += "  ›";
    if (e.kind == MenuEntry::Kind::field) {
        text += ": " + (e.isSecret ? std::string(e.value.empty() ? "" : "••••") : e.value);
    }
    return text;
}

} // namespace

std::string fitted(const std::string& text, int columns) {
    if (columns <= 0) return {};
    // Each character is taken as one cell; wide pictographs may run one cell over.
    std::size_t cells = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isContinuation(text[i]) || isVariationSelector(text, i)) continue;
        if (cells == static_cast<std::size_t>(columns)) return text.substr(0, i);
        ++cells;
    }
    return text;
}

std::vector<Row> render(const MenuSnapshot& snapshot, MenuNavigator& navigator, int rows, int columns,
                        const std::deque<std::string>& status) {
    std::vector<Row> out;
    if (rows < minimumRows || columns < minimumColumns) {
        out.push_back({fitted("Terminal too small — make it at least " + std::to_string(minimumColumns) + "×" +
                                  std::to_string(minimumRows), columns),
                       false, false});
        return out;
    }
    const auto& entries = navigator.visible(snapshot);
    const auto cursor = navigator.cursor(snapshot);
    std::string title = " " + snapshot.label;
    for (const auto& step : navigator.path(snapshot)) title += " › " + step;
    out.push_back({fitted(title, columns), false, true});

    // Two status lines and the help line below the menu.
    const int statusRows = 2;
    const int menuRows = rows - 1 - statusRows - 1;
    const auto letters = MenuNavigator::letters(entries);
    int at = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].id == cursor) at = static_cast<int>(i);
    }
    const int count = static_cast<int>(entries.size());
    int first = 0;
    if (count > menuRows) first = std::clamp(at - menuRows / 2, 0, count - menuRows);
    for (int r = 0; r < menuRows; ++r) {
        const int i = first + r;
        if (i >= count) {
            out.push_back({"", false, false});
            continue;
        }
        const auto& e = entries[static_cast<std::size_t>(i)];
        std::string text = lineText(e, letters[static_cast<std::size_t>(i)]);
        // The first and last visible rows say when there is more above or below.
        if ((r == 0 && first > 0) || (r == menuRows - 1 && i < count - 1)) text = "   ⋯";
        out.push_back({fitted(text, columns), e.id == cursor && !cursor.empty() && text != "   ⋯",
                       e.kind == MenuEntry::Kind::label || !e.isEnabled});
    }
    const auto n = static_cast<int>(status.size());
    for (int r = 0; r < statusRows; ++r) {
        const int i = n - statusRows + r;
        out.push_back({i >= 0 ? fitted(" " + status[static_cast<std::size_t>(i)], columns) : "", false, true});
    }
    if (navigator.isEditing()) {
        const std::string typed = navigator.editIsSecret() ? std::string(navigator.editText().size(), '*') : navigator.editText();
        std::string prompt = " " + navigator.editTitle() + ": " + typed + "_";
        // The end of what is typed stays in view.
        std::size_t cells = 0;
        for (char c : prompt) cells += isContinuation(c) ? 0 : 1;
        if (cells > static_cast<std::size_t>(columns)) {
            std::size_t drop = cells - static_cast<std::size_t>(columns);
            std::size_t i = 0;
            while (drop > 0 && i < prompt.size()) {
                ++i;
                while (i < prompt.size() && isContinuation(prompt[i])) ++i;
                --drop;
            }
            prompt = prompt.substr(i);
        }
        out.push_back({prompt, false, false});
    } else {
        out.push_back({fitted(" ↑↓ move · Enter choose · letter jumps · Esc back · q quit", columns), false, true});
    }
    return out;
}

} // namespace MenuScreen

namespace {

// What a signal handler needs to give the terminal back: plain bytes and flags only.
struct SignalState {
    std::atomic<bool> active{false};
    termios saved{};
    int outFd = STDOUT_FILENO;
    int inFd = STDIN_FILENO;
    char restore[256] = {};
    std::size_t restoreLength = 0;
    // Where the cursor-showing bytes begin in `restore`; they end it.
    std::size_t showCursorAt = 0;
    int wakeFd = -1;
    struct sigaction previous[NSIG] = {};
};
SignalState signalState;

constexpr int crashSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGQUIT, SIGHUP};

void onCrash(int signal) {
    TerminalMenu::restoreTerminalFromSignal();
    // The handler that was there before (the default, or a sanitizer's report) takes it from here.
    sigaction(signal, &signalState.previous[signal], nullptr);
    raise(signal);
}

void onResize(int) {
    const int saved = errno;
    if (signalState.wakeFd >= 0) {
        const char w = 'w';
        [[maybe_unused]] auto n = ::write(signalState.wakeFd, &w, 1);
    }
    errno = saved;
}

void appendCapability(const char* name) {
    char* value = tigetstr(name);
    if (!value || value == reinterpret_cast<char*>(-1)) return;
    const std::size_t n = std::strlen(value);
    if (signalState.restoreLength + n >= sizeof(signalState.restore)) return;
    std::memcpy(signalState.restore + signalState.restoreLength, value, n);
    signalState.restoreLength += n;
}

} // namespace

void TerminalMenu::restoreTerminalFromSignal() {
    if (!signalState.active.exchange(false)) return;
    tcsetattr(signalState.inFd, TCSANOW, &signalState.saved);
    [[maybe_unused]] auto n = ::write(signalState.outFd, signalState.restore, signalState.restoreLength);
    const char end[] = "\r\n";
    n = ::write(signalState.outFd, end, sizeof(end) - 1);
}

struct TerminalMenu::Core : std::enable_shared_from_this<TerminalMenu::Core> {
    MenuSource* source = nullptr;
    Scheduler* scheduler = nullptr;
    SCREEN* screen = nullptr;
    MenuNavigator navigator;
    int observer = 0;
    bool redrawPending = false;
    bool closed = false;
    std::function<void()>* onQuit = nullptr;
    std::function<void(const std::vector<std::string>&, const std::string&)>* onMove = nullptr;
    std::vector<std::string> lastPath;
    std::string lastCursor;

    // Tells the host when the open submenus or the chosen line changed since the last time.
    void reportMove() {
        if (!onMove || !*onMove) return;
        const auto snapshot = source->snapshot();
        auto path = navigator.path(snapshot);
        auto cursor = navigator.cursor(snapshot);
        if (path == lastPath && cursor == lastCursor) return;
        lastPath = path;
        lastCursor = cursor;
        (*onMove)(lastPath, lastCursor);
    }

    std::mutex mutex;
    std::deque<std::string> status;
    std::condition_variable drainedSignal;
    bool drained = true;
    bool stopping = false;
    int pipe[2] = {-1, -1};
    std::thread input;

    void scheduleRedraw() {
        if (redrawPending || closed) return;
        redrawPending = true;
        std::weak_ptr<Core> weak = shared_from_this();
        scheduler->async([weak] {
            if (auto self = weak.lock()) {
                self->redrawPending = false;
                self->draw();
            }
        });
    }

    void draw() {
        if (closed) return;
        int rows = 0;
        int columns = 0;
        getmaxyx(stdscr, rows, columns);
        std::deque<std::string> lines;
        {
            std::lock_guard lock(mutex);
            lines = status;
        }
        const auto snapshot = source->snapshot();
        const auto out = MenuScreen::render(snapshot, navigator, rows, columns, lines);
        ::werase(stdscr);
        for (std::size_t r = 0; r < out.size() && static_cast<int>(r) < rows; ++r) {
            const attr_t attributes = out[r].isCursor ? A_REVERSE : out[r].isDim ? A_DIM : A_NORMAL;
            wattrset(stdscr, attributes);
            mvwaddstr(stdscr, static_cast<int>(r), 0, out[r].text.c_str());
            // The cursor's bar runs the width of the screen.
            if (out[r].isCursor) whline(stdscr, ' ' | A_REVERSE, columns - getcurx(stdscr));
            wattrset(stdscr, A_NORMAL);
        }
        ::wrefresh(stdscr);
    }

    void resize() {
        winsize size{};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
            resizeterm(size.ws_row, size.ws_col);
        }
        draw();
    }

    static std::optional<MenuNavigator::Key> key(int c) {
        using K = MenuNavigator::KeyKind;
        switch (c) {
        case KEY_UP: return MenuNavigator::Key::of(K::up);
        case KEY_DOWN: return MenuNavigator::Key::of(K::down);
        case KEY_LEFT: return MenuNavigator::Key::of(K::back);
        case KEY_RIGHT: return MenuNavigator::Key::of(K::forward);
        case KEY_PPAGE: return MenuNavigator::Key::of(K::pageUp);
        case KEY_NPAGE: return MenuNavigator::Key::of(K::pageDown);
        case KEY_ENTER:
        case '\n':
        case '\r': return MenuNavigator::Key::of(K::enter);
        case 27: return MenuNavigator::Key::of(K::escape);
        case KEY_BACKSPACE:
        case 127:
        case 8: return MenuNavigator::Key::of(K::backspace);
        default:
            if (c >= 0 && c < 256) return MenuNavigator::Key::letter(static_cast<char>(c));
            return std::nullopt;
        }
    }

    // Every key that has arrived is handled before the next drawing, in the order typed.
    void drainInput() {
        bool quit = false;
        for (;;) {
            const int c = wgetch(stdscr);
            if (c == ERR) break;
            if (c == KEY_RESIZE) continue;
            auto k = key(c);
            if (!k || quit) continue;
            const auto outcome = navigator.press(source->snapshot(), *k);
            using O = MenuNavigator::Outcome::Kind;
            if (outcome.kind == O::activate) source->activate(outcome.id);
            if (outcome.kind == O::submit) source->submit(outcome.id, outcome.text);
            if (outcome.kind == O::quit) quit = true;
        }
        {
            std::lock_guard lock(mutex);
            drained = true;
        }
        drainedSignal.notify_all();
        if (quit && onQuit && *onQuit) {
            (*onQuit)();
            return;
        }
        draw();
        reportMove();
    }

    void readLoop() {
        std::weak_ptr<Core> weak = shared_from_this();
        for (;;) {
            pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {pipe[0], POLLIN, 0}};
            const int ready = ::poll(fds, 2, -1);
            if (ready < 0 && errno == EINTR) continue;
            if (ready < 0) return;
            if (fds[1].revents & POLLIN) {
                char buffer[16];
                const auto n = ::read(pipe[0], buffer, sizeof buffer);
                for (ssize_t i = 0; i < n; ++i) {
                    if (buffer[i] == 's') return;
                    if (buffer[i] == 'w') {
                        scheduler->async([weak] {
                            if (auto self = weak.lock(); self && !self->closed) self->resize();
                        });
                    }
                }
            }
            if (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) return;
            if (fds[0].revents & POLLIN) {
                std::unique_lock lock(mutex);
                drained = false;
                scheduler->async([weak] {
                    if (auto self = weak.lock(); self && !self->closed) self->drainInput();
                });
                // The main queue reads the keys; this thread waits until it has, so it never
                // wakes for bytes that are already being read.
                drainedSignal.wait(lock, [this] { return drained || stopping; });
                if (stopping) return;
            }
        }
    }
};

std::unique_ptr<TerminalMenu> TerminalMenu::open(MenuSource& source, Scheduler& scheduler, std::string* why) {
    auto fail = [why](const std::string& text) -> std::unique_ptr<TerminalMenu> {
        if (why) *why = text;
        return nullptr;
    };
    if (!isatty(STDIN_FILENO)) return fail("standard input is not a terminal");
    if (!isatty(STDOUT_FILENO)) return fail("standard output is not a terminal");
    if (signalState.active) return fail("the terminal already shows a menu");
    // Wide characters need a UTF-8 character type; numbers keep the C locale everywhere else.
    std::setlocale(LC_CTYPE, "");
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0) std::setlocale(LC_CTYPE, "C.UTF-8");

    auto core = std::make_shared<Core>();
    core->source = &source;
    core->scheduler = &scheduler;
    if (tcgetattr(STDIN_FILENO, &signalState.saved) != 0) return fail(std::string("cannot read the terminal: ") + std::strerror(errno));
    core->screen = newterm(nullptr, stdout, stdin);
    if (!core->screen) {
        const char* term = std::getenv("TERM");
        return fail(std::string("the terminal type “") + (term ? term : "") + "” is unknown");
    }
    set_term(core->screen);
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(25);
    curs_set(0);

    signalState.restoreLength = 0;
    // The cursor is shown after leaving the alternate screen, which may bring back the state
    // saved on entering it (a hidden cursor).
    appendCapability("sgr0");
    appendCapability("rmkx");
    appendCapability("rmcup");
    signalState.showCursorAt = signalState.restoreLength;
    appendCapability("cnorm");
    if (::pipe2(core->pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        endwin();
        delscreen(core->screen);
        return fail(std::string("cannot make a pipe: ") + std::strerror(errno));
    }
    signalState.wakeFd = core->pipe[1];
    signalState.active = true;
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_handler = onCrash;
    for (int signal : crashSignals) sigaction(signal, &action, &signalState.previous[signal]);
    action.sa_handler = onResize;
    action.sa_flags = SA_RESTART;
    sigaction(SIGWINCH, &action, &signalState.previous[SIGWINCH]);

    std::unique_ptr<TerminalMenu> menu(new TerminalMenu());
    menu->core_ = core;
    core->onQuit = &menu->onQuit;
    core->onMove = &menu->onMove;
    std::weak_ptr<Core> weak = core;
    core->observer = source.addChangeObserver([weak] {
        if (auto self = weak.lock()) self->scheduleRedraw();
    });
    source.menuWillOpen();
    core->draw();
    core->input = std::thread([core] {
        pthread_setname_np(pthread_self(), "tavrick.terminal");
        core->readLoop();
    });
    return menu;
}

void TerminalMenu::post(const std::string& line) {
    auto core = core_;
    if (!core) return;
    {
        std::lock_guard lock(core->mutex);
        // Each line of a multi-line message on its own row.
        std::size_t start = 0;
        while (start <= line.size()) {
            auto end = line.find('\n', start);
            if (end == std::string::npos) end = line.size();
            if (end > start) core->status.push_back(line.substr(start, end - start));
            start = end + 1;
        }
        while (core->status.size() > 200) core->status.pop_front();
    }
    std::weak_ptr<Core> weak = core;
    core->scheduler->async([weak] {
        if (auto self = weak.lock()) self->scheduleRedraw();
    });
}

void TerminalMenu::reveal(std::vector<std::string> ids) {
    if (!core_ || core_->closed) return;
    core_->navigator.open(std::move(ids));
    core_->draw();
    core_->reportMove();
}

void TerminalMenu::close() {
    auto core = core_;
    if (!core || core->closed) return;
    core->closed = true;
    {
        std::lock_guard lock(core->mutex);
        core->stopping = true;
    }
    core->drainedSignal.notify_all();
    const char s = 's';
    [[maybe_unused]] auto n = ::write(core->pipe[1], &s, 1);
    if (core->input.joinable()) core->input.join();
    core->source->removeChangeObserver(core->observer);
    core->source->menuDidClose();
    for (int signal : crashSignals) sigaction(signal, &signalState.previous[signal], nullptr);
    sigaction(SIGWINCH, &signalState.previous[SIGWINCH], nullptr);
    signalState.wakeFd = -1;
    curs_set(1);
    endwin();
    delscreen(core->screen);
    core->screen = nullptr;
    signalState.active = false;
    // The bytes ncurses left in stdout's buffer are flushed before anything else prints.
    std::fflush(stdout);
    [[maybe_unused]] auto written = ::write(STDOUT_FILENO, signalState.restore + signalState.showCursorAt,
                                            signalState.restoreLength - signalState.showCursorAt);
    ::close(core->pipe[0]);
    ::close(core->pipe[1]);
    core->onQuit = nullptr;
    core->onMove = nullptr;
}

TerminalMenu::~TerminalMenu() {
    close();
}

} // namespace tavrick
