#include "Tavrick/MenuBarContent.h"

#include "CoreKit/Appearance.h"
#include "CoreKit/Toast.h"
#include "FanKit/FanMonitor.h"
#include "MonitorKit/ByteFormat.h"
#include "Tavrick/AppCoordinator.h"
#include "Tavrick/SettingsMenu.h"

#include <algorithm>
#include <cmath>

namespace tavrick {

namespace MenuBarLabel {
std::string text(MenuBarIconStyle style, MenuBarReadout readout, const std::vector<FanReading>& fans,
                 std::optional<double> hottest) {
    std::string label(systemImageName(style).value_or("MenuBarGlyph"));
    switch (readout) {
    case MenuBarReadout::off: return label;
    case MenuBarReadout::fanSpeed: return label + "  " + FanFormat::readout(fans, hottest);
    case MenuBarReadout::chipTemperature: {
        std::string figure = FanFormat::degrees(hottest.value_or(NAN));
        // Same width as the fan figure, in characters, so the item does not jump between readings.
        std::size_t characters = 0;
        for (char ch : figure) characters += (static_cast<unsigned char>(ch) & 0xC0) != 0x80;
        if (characters < FanFormat::readoutWidth) figure.insert(0, FanFormat::readoutWidth - characters, ' ');
        return label + "  " + figure;
    }
    }
    return label;
}
} // namespace MenuBarLabel

namespace {

using Kind = MenuEntry::Kind;

MenuEntry entry(std::string id, Kind kind, std::string title) {
    return MenuEntry::make(std::move(id), kind, std::move(title));
}
MenuEntry label(std::string id, std::string title) { return entry(std::move(id), Kind::label, std::move(title)); }
MenuEntry toggle(std::string id, std::string title, bool isOn) {
    auto e = entry(std::move(id), Kind::toggle, std::move(title));
    e.isOn = isOn;
    return e;
}

std::string plural(std::size_t n, const std::string& one, const std::string& many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

} // namespace

// What one build of the menu offers: the lines, and what each id does.
struct MenuBarContent::Built {
    MenuSnapshot snapshot;
    std::map<std::string, std::function<void()>> commands;
    std::map<std::string, std::function<bool(const std::string&)>> fields;

    // Adds `e` to `into`, with what choosing it does.
    void add(std::vector<MenuEntry>& into, MenuEntry e, std::function<void()> run = nullptr) {
        // A greyed-out line does nothing when chosen.
        if (run && e.isEnabled) commands[e.id] = std::move(run);
        into.push_back(std::move(e));
    }
    void field(std::vector<MenuEntry>& into, MenuEntry e, std::function<bool(const std::string&)> take) {
        fields[e.id] = std::move(take);
        into.push_back(std::move(e));
    }
};

MenuBarContent::MenuBarContent(AppCoordinator& coordinator) : c_(coordinator) {
    observeServices();
    if (!snapError) snapError = [this] { return c_.snapError().get(); };
}

MenuBarContent::~MenuBarContent() {
    *alive_ = false;
    c_.vaultPanel().onChange = nullptr;
    VaultCrypto::wipe(newPassphrase_);
    if (isOpen_) menuDidClose();
}

void MenuBarContent::toast(const std::string& title, bool warning, const std::optional<std::string>& detail) const {
    Toast::shared().show(title, warning ? Toast::Kind::warning : Toast::Kind::done, detail);
}

void MenuBarContent::changed() {
    auto observers = observers_;
    for (auto& [token, observer] : observers) {
        if (observers_.count(token)) observer();
    }
}

int MenuBarContent::addChangeObserver(std::function<void()> observer) {
    const int token = nextToken_++;
    observers_[token] = std::move(observer);
    return token;
}

void MenuBarContent::removeChangeObserver(int token) {
    observers_.erase(token);
}

void MenuBarContent::observeServices() {
    auto any = [this](const auto&) { changed(); };
    auto& s = c_.settings();
    observations_.push_back(s.menuBarItems.observe(any));
    observations_.push_back(s.menuBarIconStyle.observe(any));
    observations_.push_back(s.menuBarReadout.observe([this](MenuBarReadout readout) {
        // The readout keeps the fans sampled even while the menu is closed.
        if (auto* fans = c_.fans()) fans->setAlwaysOn(readout == MenuBarReadout::fanSpeed);
        changed();
    }));
    if (auto* fans = c_.fans()) fans->setAlwaysOn(s.menuBarReadout.get() == MenuBarReadout::fanSpeed);
    observations_.push_back(s.isWindowSnappingEnabled.observe(any));
    observations_.push_back(s.isNetworkMonitorEnabled.observe(any));
    observations_.push_back(s.showConfirmations.observe(any));
    observations_.push_back(c_.isEnabled().observe(any));
    observations_.push_back(c_.engineError().observe(any));
    observations_.push_back(c_.gestureError().observe(any));
    observations_.push_back(c_.clipboard().history().observe(any));
    observations_.push_back(c_.clipboard().isEnabled().observe(any));
    auto& p = c_.pomodoro();
    observations_.push_back(p.phase().observe(any));
    observations_.push_back(p.isRunning().observe(any));
    observations_.push_back(p.remaining().observe(any));
    observations_.push_back(p.elapsed().observe(any));
    observations_.push_back(p.completedFocusSessions().observe(any));
    observations_.push_back(c_.monitor().memory().observe(any));
    observations_.push_back(c_.monitor().disk().observe(any));
    observations_.push_back(c_.monitor().power().observe(any));
    if (auto* fans = c_.fans()) {
        observations_.push_back(fans->fans().observe(any));
        observations_.push_back(fans->thermal().observe(any));
        observations_.push_back(fans->failure().observe(any));
    }
    if (auto* control = c_.fanControl()) {
        observations_.push_back(control->state().observe(any));
        observations_.push_back(control->preset().observe(any));
    }
    observations_.push_back(c_.flows().apps().observe(any));
    observations_.push_back(c_.flows().flowCount().observe(any));
    observations_.push_back(c_.awake().isActive().observe(any));
    observations_.push_back(c_.awake().session().observe(any));
    observations_.push_back(c_.awake().remaining().observe(any));
    observations_.push_back(c_.awake().mode().observe(any));
    observations_.push_back(c_.notepad().text().observe(any));
    observations_.push_back(c_.vault().isUnlocked.observe(any));
    observations_.push_back(c_.vault().items.observe(any));
    observations_.push_back(c_.vault().storage.observe(any));
    observations_.push_back(c_.vault().lastError.observe(any));
    observations_.push_back(c_.vault().protection.observe(any));
    c_.vaultPanel().onChange = [this] { changed(); };
    observations_.push_back(c_.snapError().observe(any));
}

void MenuBarContent::menuWillOpen() {
    if (isOpen_) return;
    isOpen_ = true;
    c_.monitor().addWatcher();
    if (auto* fans = c_.fans()) fans->addWatcher();
}

void MenuBarContent::menuDidClose() {
    if (!isOpen_) return;
    isOpen_ = false;
    c_.monitor().removeWatcher();
    if (auto* fans = c_.fans()) fans->removeWatcher();
}

MenuSnapshot MenuBarContent::snapshot() const {
    return build().snapshot;
}

bool MenuBarContent::activate(const std::string& id) {
    auto built = build();
    auto found = built.commands.find(id);
    if (found == built.commands.end()) return false;
    // The id says which line, never what a copy or a note holds.
    c_.log().note("menu", "chose " + id);
    found->second();
    return true;
}

bool MenuBarContent::submit(const std::string& id, const std::string& text) {
    auto built = build();
    auto found = built.fields.find(id);
    if (found == built.fields.end()) return false;
    // What was typed stays out of the log: it may be a passphrase.
    const bool taken = found->second(text);
    c_.log().note("menu", (taken ? "changed " : "refused a value for ") + id);
    return taken;
}

MenuBarContent::Built MenuBarContent::build() const {
    Built b;
    auto& out = b.snapshot.entries;
    auto& settings = c_.settings();
    auto* self = const_cast<MenuBarContent*>(this);
    AppCoordinator& c = c_;

    std::vector<FanReading> fanReadings;
    std::optional<double> hottest;
    if (auto* fans = c.fans()) {
        fanReadings = fans->fans().get();
        hottest = fans->hottest();
    }
    b.snapshot.label = MenuBarLabel::text(settings.menuBarIconStyle.get(), settings.menuBarReadout.get(), fanReadings, hottest);

    bool first = true;
    for (const auto& item : settings.menuBarItems.get()) {
        if (!item.isEnabled) continue;
        if (!first) out.push_back(entry("separator." + std::string(rawValue(item.section)), Kind::separator, ""));
        first = false;
        switch (item.section) {
        case MenuBarSection::masterToggle: {
            const bool on = c.isEnabled().get();
            b.add(out, toggle("master.enabled", "Shortcuts & Gestures Enabled", on), [&c, on] { c.setEnabled(!on); });
            if (c.engineError().get()) {
                b.add(out, label("master.error", "⚠︎ Not active — permission needed"));
                if (auto permission = c.blockingPermission()) {
                    const auto p = *permission;
                    b.add(out, entry("master.grant", Kind::command, "Grant " + std::string(displayName(p)) + "…"),
                          [&c, p] { c.requestPermission(p); });
                }
                b.add(out, entry("master.retry", Kind::command, "Try Again"), [&c] { c.retryEngines(); });
            }
            if (const auto& error = c.gestureError().get()) b.add(out, label("master.gestureError", "Gestures: " + *error));
            break;
        }
        case MenuBarSection::windowSnapping: {
            const bool on = settings.isWindowSnappingEnabled.get();
            b.add(out, toggle("snapping.enabled", "Window Snapping", on), [self, &settings, on] {
                settings.isWindowSnappingEnabled.set(!on);
                if (self->onSnappingChanged) self->onSnappingChanged(!on);
            });
            b.add(out, label("snapping.help", "Drag a window to an edge or corner"));
            if (snapError) {
                if (auto error = snapError()) b.add(out, label("snapping.error", "⚠︎ " + *error));
            }
            auto snap = entry("snapping.snap", Kind::submenu, "Snap Frontmost Window");
            for (auto command : allCases<WindowCommand>()) {
                b.add(snap.children, entry("snapping.snap." + std::string(rawValue(command)), Kind::command,
                                           std::string(displayName(command))),
                      [&c, command] { c.actions().run(ActionSpec::window(command)); });
            }
            b.add(out, std::move(snap));
            break;
        }
        case MenuBarSection::clipboard: {
            auto& clip = c.clipboard();
            if (!clip.isEnabled().get()) {
                b.add(out, toggle("clipboard.enabled", "Record Copies", false), [&clip] { clip.setEnabled(true); });
            }
            const auto& items = clip.history().get().items();
            if (items.empty()) b.add(out, label("clipboard.empty", "Nothing copied yet"));
            std::size_t shown = 0;
            for (const auto& item : items) {
                if (shown++ == clipboardLines) break;
                const std::string id = "clipboard.item." + item.id.uuidString();
                auto line = entry(id, Kind::submenu, (item.isPinned ? "📌 " : "") + item.preview());
                b.add(line.children, entry(id + ".copy", Kind::command, "Copy"), [self, &clip, item] {
                    clip.copyToPasteboard(item);
                    self->toast("Copied", false, std::nullopt);
                });
                const bool pinned = item.isPinned;
                b.add(line.children, entry(id + ".pin", Kind::command, pinned ? "Unpin" : "Pin"), [self, &clip, item, pinned] {
                    clip.setPinned(!pinned, item);
                    if (pinned) {
                        self->toast("Unpinned", false, "It can be evicted again");
                    } else {
                        self->toast("Pinned", false, "It will survive Clear History");
                    }
                });
                b.add(line.children, entry(id + ".delete", Kind::command, "Delete"), [&clip, item] { clip.remove(item); });
                b.add(out, std::move(line));
            }
            if (!items.empty()) {
                b.add(out, entry("clipboard.clear", Kind::command, "Clear History"), [self, &clip] {
                    const auto& before = clip.history().get();
                    const std::string summary = before.clearSummary(true);
                    const bool keepsPins = !before.pinned().empty();
                    clip.clear();
                    self->toast(summary, false, keepsPins ? std::optional<std::string>("Keeps anything pinned") : std::nullopt);
                });
            } else if (clip.isEnabled().get()) {
                b.add(out, toggle("clipboard.enabled", "Record Copies", true), [&clip] { clip.setEnabled(false); });
            }
            break;
        }
        case MenuBarSection::pomodoro: {
            auto& p = c.pomodoro();
            const bool running = p.isRunning().get();
            const auto phase = std::string(displayName(p.phase().get()));
            const bool started = running || p.progress() > 0 || p.isIndefinite().get();
            std::string status;
            if (p.isIndefinite().get()) {
                status = phase + " · " + PomodoroController::format(p.elapsed().get()) + " so far";
            } else if (started) {
                status = phase + " · " + p.displayString() + " left";
            } else if (p.phase().get() == PomodoroPhase::focus) {
                status = "Pomodoro stopped";
            } else {
                status = phase + " next · " + p.displayString();
            }
            if (started && !running) status += " — paused";
            b.add(out, label("pomodoro.status", status));
            b.add(out, entry("pomodoro.toggle", Kind::command, running ? "Pause" : started ? "Resume" : "Start"),
                  [&p] { p.toggle(); });
            b.add(out, entry("pomodoro.skip", Kind::command, "Skip Phase"), [&p] { p.skip(); });
            auto reset = entry("pomodoro.reset", Kind::command, "Reset");
            reset.isEnabled = started || p.phase().get() != PomodoroPhase::focus || p.completedFocusSessions().get() > 0;
            b.add(out, reset, [&p] { p.reset(); });
            auto lengths = entry("pomodoro.focus", Kind::submenu, "Start Focus");
            for (auto length : allPomodoroLengths()) {
                const int minutes = static_cast<int>(length);
                b.add(lengths.children, entry("pomodoro.focus." + std::to_string(minutes), Kind::command, displayName(length)),
                      [&p, minutes] { p.startFocus(minutes); });
            }
            b.add(lengths.children, entry("pomodoro.focus.open", Kind::command, "Without a Timer"),
                  [&p] { p.startIndefiniteFocus(); });
            b.add(out, std::move(lengths));
            if (const int done = p.completedFocusSessions().get(); done > 0) {
                b.add(out, label("pomodoro.done", plural(static_cast<std::size_t>(done), "focus session", "focus sessions") + " done"));
            }
            break;
        }
        case MenuBarSection::system: {
            auto& m = c.monitor();
            const auto& memory = m.memory().get();
            const auto& disk = m.disk().get();
            const auto& power = m.power().get();
            if (!memory && !disk) b.add(out, label("system.reading", "System  reading…"));
            if (memory) {
                b.add(out, label("system.memory", "Memory  " + ByteFormat::compact(memory->used) + " of " +
                                                      ByteFormat::compact(memory->total) + " used"));
            }
            if (disk) {
                b.add(out, label("system.disk", "Disk  " + ByteFormat::compact(disk->available) + " free of " +
                                                    ByteFormat::compact(disk->total)));
            }
            if (power.batteryCelsius) b.add(out, label("system.battery", "Battery  " + PowerFormat::celsius(*power.batteryCelsius)));
            if (auto summary = PowerFormat::summary(power)) b.add(out, label("system.power", "Power  " + *summary));
            break;
        }
        case MenuBarSection::fans: {
            auto* fans = c.fans();
            auto* control = c.fanControl();
            if (!fans) {
                b.add(out, label("fans.speed", "Speed  unavailable"));
                break;
            }
            const auto& thermal = fans->thermal().get();
            const bool stale = thermal && thermal->isStale;
            const std::string staleMark = stale ? " · not updating" : "";
            if (!fans->hasRead()) {
                b.add(out, label("fans.speed", "Speed  reading…"));
            } else if (fans->failure().get() && fanReadings.empty()) {
                b.add(out, label("fans.speed", "Speed  unavailable"));
            } else if (fans->isFanless()) {
                b.add(out, label("fans.speed", "No fans on this Mac"));
            } else if (auto speeds = FanFormat::speeds(fanReadings, control && control->isControllingFans())) {
                b.add(out, label("fans.speed", "Speed  " + *speeds));
            }
            if (hottest) b.add(out, label("fans.temperature", "Chip  " + FanFormat::degrees(*hottest) + staleMark));
            if (!control) break;
            const auto state = control->state().get();
            using SK = FanController::State::Kind;
            if (state.kind != SK::ready && state.kind != SK::boosting && state.kind != SK::starting) {
                b.add(out, label("fans.state", FanController::title(state)));
            }
            if (fans->hasRead() && !fans->isFanless()) {
                const auto preset = control->preset().get();
                for (auto choice : FanPresets::choices()) {
                    const std::string title = choice == FanPreset::automatic ? "Auto (macOS controls)" : std::string(::tavrick::title(choice));
                    b.add(out, toggle("fans.preset." + std::string(rawValue(choice)), title, preset == choice),
                          [&c, choice] { c.runFanPreset(choice); });
                }
            }
            if (control->canHandBackFans()) {
                b.add(out, entry("fans.handBack", Kind::command, "Hand the Fans Back to macOS"), [control] { control->handBackFans(); });
            } else if (control->status() && FanController::canHandBackAnyway(*control->status())) {
                b.add(out, entry("fans.handBackAnyway", Kind::command, "Hand the Fans Back Anyway"),
                      [control] { control->handBackFansAnyway(); });
                b.add(out, label("fans.handBackAnyway.detail", "Tavrick has no record of setting them"));
            }
            if (state.kind == SK::needsReinstall) {
                b.add(out, entry("fans.reinstall", Kind::command, "Reinstall Helper from This Copy"),
                      [control] { control->reinstallHelper(); });
            }
            if (state.kind == SK::needsApproval) {
                b.add(out, entry("fans.loginItems", Kind::command, "Open Login Items…"),
                      [&c] { c.loginItem().openLoginItemsSettings(); });
            }
            break;
        }
        case MenuBarSection::network: {
            auto& flows = c.flows();
            const bool on = settings.isNetworkMonitorEnabled.get();
            b.add(out, toggle("network.watch", "Watch Connections", on), [&c, on] { c.setNetworkMonitor(!on); });
            if (!on) break;
            const auto& apps = flows.apps().get();
            const int count = flows.flowCount().get();
            if (count == 0) {
                b.add(out, label("network.summary", "Nothing connected"));
            } else {
                std::string names;
                for (std::size_t i = 0; i < apps.size() && i < 3; ++i) names += (i ? ", " : "") + apps[i].displayName;
                if (apps.size() > 3) names += " and " + std::to_string(apps.size() - 3) + " more";
                b.add(out, label("network.summary", std::to_string(count) + " connections · " + names));
            }
            if (flows.isLearning(c.scheduler().clock().now())) {
                b.add(out, label("network.learning", "Learning what is normal — not alerting yet"));
            }
            for (std::size_t i = 0; i < apps.size() && i < networkLines; ++i) {
                const auto& app = apps[i];
                b.add(out, label("network.app." + app.app.stableIdentifier(),
                                 app.displayName + "  " + plural(static_cast<std::size_t>(app.hostCount), "host", "hosts") +
                                     (app.isMuted ? " · muted" : "")));
            }
            break;
        }
        case MenuBarSection::keepAwake: {
            auto& awake = c.awake();
            const auto mode = awake.isActive().get() ? awake.mode().get() : chosenAwakeMode_.value_or(awake.mode().get());
            if (awake.isActive().get()) {
                const auto& session = awake.session().get();
                std::string status = "Awake — " + (session ? session->description() : std::string());
                if (auto left = awake.remainingDisplayString()) status += " · " + *left + " left";
                b.add(out, label("awake.status", status));
                b.add(out, entry("awake.stop", Kind::command, "Turn Off"), [self, &awake] {
                    awake.stop();
                    self->toast("Keep-awake off", false, "The Mac can sleep again");
                });
            } else {
                b.add(out, label("awake.status", "Keep Awake is off"));
            }
            b.add(out, entry("awake.indefinite", Kind::command, "Until you turn it off"),
                  [&awake, mode] { awake.start(mode, AwakeSession::indefinite()); });
            for (auto duration : allAwakeDurations()) {
                const int seconds = static_cast<int>(duration);
                b.add(out, entry("awake.for." + std::to_string(seconds), Kind::command, std::string(displayName(duration))),
                      [&c, &awake, mode, seconds] {
                          awake.start(mode, AwakeSession::until(c.scheduler().clock().now() + seconds));
                      });
            }
            auto apps = entry("awake.app", Kind::submenu, "While an App Is Running");
            const auto running = c.runningApplications();
            for (const auto& app : running) {
                if (!app.bundleIdentifier) continue;
                const std::string name = app.localizedName.value_or(*app.bundleIdentifier);
                const std::string bundle = *app.bundleIdentifier;
                b.add(apps.children, entry("awake.app." + bundle, Kind::command, name), [&awake, mode, bundle, name] {
                    awake.start(mode, AwakeSession::whileAppRunning(bundle, name));
                });
            }
            if (apps.children.empty()) {
                auto none = label("awake.app.none", "No apps available");
                none.isEnabled = false;
                apps.children.push_back(none);
            }
            b.add(out, std::move(apps));
            auto modes = entry("awake.mode", Kind::submenu, "Mode: " + std::string(displayName(mode)));
            for (auto choice : allAwakeModes()) {
                b.add(modes.children, toggle("awake.mode." + std::string(rawValue(choice)), std::string(displayName(choice)), choice == mode),
                      [self, &awake, choice] {
                          // A running session takes the new mode at once; otherwise the next one does.
                          self->chosenAwakeMode_ = choice;
                          if (awake.isActive().get() && awake.session().get()) awake.start(choice, *awake.session().get());
                          self->changed();
                      });
            }
            b.add(out, std::move(modes));
            break;
        }
        case MenuBarSection::finder: {
            auto tweaks = c.tweaks().shared_from_this();
            const auto& all = Tweaks::all();
            auto hidden = std::find_if(all.begin(), all.end(), [](const Tweak& t) { return t.id == "showHiddenFiles"; });
            if (hidden != all.end()) {
                const Tweak tweak = *hidden;
                b.add(out, toggle("finder.hidden", "Show Hidden Files", tweaks->isOn(tweak)), [self, tweaks, tweak] {
                    std::weak_ptr<bool> alive = self->alive_;
                    tweaks->toggle(tweak, [self, alive](bool ok) {
                        if (alive.expired()) return;
                        if (!ok) self->toast("Finder did not come back", true, "Open it from the Dock");
                        self->changed();
                    });
                });
            }
            b.add(out, entry("finder.relaunch", Kind::command, "Relaunch Finder"), [self, tweaks] {
                std::weak_ptr<bool> alive = self->alive_;
                tweaks->restart(RestartTarget::finder, [self, alive](bool ok) {
                    if (alive.expired()) return;
                    if (ok) {
                        self->toast("Finder relaunched", false, std::nullopt);
                    } else {
                        self->toast("Finder did not come back", true, "Open it from the Dock");
                    }
                });
            });
            break;
        }
        case MenuBarSection::notepad: {
            auto& note = c.notepad();
            const std::string summary = note.summary();
            b.add(out, label("notepad.summary", summary.empty() ? "The note is empty" : summary));
            if (!note.isEmpty()) b.add(out, label("notepad.words", plural(note.wordCount(), "word", "words")));
            b.add(out, entry("notepad.open", Kind::command, "Open Notepad"), [&c] {
                if (c.actions().onShowNotepad) c.actions().onShowNotepad();
            });
            break;
        }
        case MenuBarSection::vault: {
            buildVault(b, out);
            break;
        }
        }
    }

    // Always at the bottom, and no section.
    out.push_back(entry("separator.bottom", Kind::separator, ""));
    auto settingsMenu = entry("settings", Kind::submenu, "Settings");
    SettingsMenu::build(c, settingsMenu.children, b.commands, b.fields);
    if (!backup_) backup_ = std::make_unique<BackupMenu>(c, [self] { self->changed(); }, backupRounds);
    backup_->build(settingsMenu.children, b.commands, b.fields);
    out.push_back(std::move(settingsMenu));
    b.add(out, entry("updates", Kind::command, "Check for Updates…"), [self] {
        self->toast("Updates come with the source", false, "Pull the latest and run ./scripts/run again");
    });
    b.add(out, entry("quit", Kind::command, "Quit"), [self] {
        if (self->onQuit) self->onQuit();
    });
    return b;
}

// The vault as its window would show it: the gate while locked, the entries with their rows while
// open, and what the last copy or failure said. Secrets appear only while revealed.
void MenuBarContent::buildVault(Built& b, std::vector<MenuEntry>& out) const {
    auto* self = const_cast<MenuBarContent*>(this);
    VaultPanel& panel = c_.vaultPanel();
    Vault& vault = c_.vault();
    std::weak_ptr<bool> alive = alive_;
    // What a panel operation reports goes to a toast: a failure as a warning, a note as news.
    auto report = [self, alive](std::string done) {
        return [self, alive, done = std::move(done)](std::optional<std::string> message) {
            if (alive.expired()) return;
            if (message) {
                self->toast(*message, true, std::nullopt);
            } else if (!done.empty()) {
                self->toast(done, false, std::nullopt);
            }
            self->changed();
        };
    };
    auto secretField = [](std::string id, std::string title) {
        auto e = entry(std::move(id), Kind::field, std::move(title));
        e.isSecret = true;
        return e;
    };

    b.add(out, label("vault.status", panel.summary()));
    if (!vault.isUnlocked.get()) {
        const auto gate = panel.gate(askForPassphrase_);
        switch (panel.gateMode()) {
        case VaultPanel::GateMode::create: {
            b.add(out, toggle("vault.ask", VaultPanel::Labels::askForPassphrase, askForPassphrase_),
                  [self] { self->askForPassphrase_ = !self->askForPassphrase_; self->changed(); });
            if (!askForPassphrase_) {
                b.add(out, entry("vault.create", Kind::command, gate.action), [&panel, report] {
                    panel.submitCreate(std::nullopt, false, report("Vault created"));
                });
            } else if (newPassphrase_.empty()) {
                b.field(out, secretField("vault.create.passphrase", gate.action + "…"),
                        [self, &panel](const std::string& text) {
                            if (!panel.canSubmit(true, text, text)) {
                                self->toast("Eight characters minimum", true, std::nullopt);
                                return false;
                            }
                            self->newPassphrase_ = text;
                            self->changed();
                            return true;
                        });
            } else {
                b.field(out, secretField("vault.create.repeat", VaultPanel::Labels::repeat),
                        [self, &panel, report](const std::string& text) {
                            std::string first = std::exchange(self->newPassphrase_, std::string());
                            const bool same = panel.canSubmit(true, first, text);
                            if (!same) {
                                VaultCrypto::wipe(first);
                                self->toast("The two passphrases differ", true, "Type it again, twice");
                                self->changed();
                                return false;
                            }
                            panel.submitCreate(std::move(first), false, report("Vault created"));
                            return true;
                        });
            }
            b.add(out, label("vault.explanation", gate.explanation));
            break;
        }
        case VaultPanel::GateMode::unlock: {
            b.field(out, secretField("vault.unlock", gate.action + "…"), [self, &panel, report](const std::string& text) {
                if (!panel.canSubmit(true, text, text)) return false;
                panel.submitUnlock(text, self->rememberNext_, report(""));
                return true;
            });
            if (auto remember = panel.rememberOption())
                b.add(out, toggle("vault.remember", *remember, rememberNext_),
                      [self] { self->rememberNext_ = !self->rememberNext_; self->changed(); });
            if (auto shortcut = panel.shortcutButton())
                b.add(out, entry("vault.unlockShortcut", Kind::command, *shortcut),
                      [&panel, report] { panel.unlockWithShortcut(report("")); });
            break;
        }
        case VaultPanel::GateMode::hidden:
            b.add(out, entry("vault.show", Kind::command, gate.action), [self, &panel] {
                panel.showEntries();
                if (!panel.message().empty()) self->toast(panel.message(), true, std::nullopt);
            });
            break;
        case VaultPanel::GateMode::unreadable:
            b.add(out, label("vault.gate", gate.title));
            b.add(out, label("vault.explanation", gate.explanation));
            break;
        }
        if (const auto& error = vault.lastError.get()) b.add(out, label("vault.error", "⚠︎ " + *error));
        return;
    }

    const auto entries = panel.entries();
    if (entries.empty()) b.add(out, label("vault.empty", std::string(VaultPanel::emptyTitle) + " — " + VaultPanel::emptyDetail));
    for (const auto& listed : entries) {
        const std::string base = "vault.entry." + listed.id.uuidString();
        auto line = entry(base, Kind::submenu,
                          std::string(VaultKinds::title(listed.kind)) + " · " + listed.title +
                              (listed.hint.empty() ? "" : "  " + listed.hint));
        for (const auto& row : panel.rows(listed.id)) {
            const std::string id = base + "." + row.field;
            b.add(line.children, label(id, row.label + ": " + row.shown + (row.brand ? "  " + *row.brand : "")));
            const UUID entryId = listed.id;
            const std::string field = row.field;
            if (row.canReveal)
                b.add(line.children, entry(id + ".reveal", Kind::command, (row.isRevealed ? "Hide " : "Reveal ") + row.label),
                      [self, &panel, entryId, field, revealed = row.isRevealed] {
                          if (revealed) {
                              panel.hide(entryId, field);
                          } else {
                              panel.reveal(entryId, field);
                          }
                          self->changed();
                      });
            b.add(line.children, entry(id + ".copy", Kind::command, "Copy " + row.label), [self, &panel, entryId, field] {
                panel.copy(entryId, field);
                self->toast(panel.message(), false, std::nullopt);
                self->changed();
            });
        }
        if (auto confirmation = panel.deleteConfirmation(listed.id)) {
            auto remove = entry(base + ".delete", Kind::submenu, "Delete…");
            b.add(remove.children, label(base + ".delete.title", confirmation->title));
            b.add(remove.children, label(base + ".delete.detail", confirmation->detail));
            b.add(remove.children, entry(base + ".delete.confirm", Kind::command, confirmation->confirm),
                  [self, &panel, entryId = listed.id] {
                      if (auto failure = panel.remove(entryId)) self->toast(*failure, true, std::nullopt);
                      self->changed();
                  });
            line.children.push_back(std::move(remove));
        }
        out.push_back(std::move(line));
    }

    // Adding: a kind, then its fields one by one; "Add" stores the draft.
    if (VaultEditor* editor = panel.editor()) {
        auto edit = entry("vault.editor", Kind::submenu, editor->namePrompt() + ": " + (editor->isNew() ? "new" : "editing"));
        auto name = entry("vault.editor.name", Kind::field, "Name");
        name.value = editor->draft().title;
        b.field(edit.children, name, [self, editor](const std::string& text) {
            editor->setTitle(text);
            self->changed();
            return true;
        });
        for (const auto& field : VaultKinds::fields(editor->draft().kind)) {
            auto line = entry("vault.editor." + field.id, Kind::field, field.label);
            line.value = editor->draft().value(field.id).value_or("");
            b.field(edit.children, line, [self, editor, id = field.id](const std::string& text) {
                editor->set(id, text);
                self->changed();
                return true;
            });
        }
        if (auto warning = editor->cardWarning()) b.add(edit.children, label("vault.editor.warning", "⚠︎ " + *warning));
        if (const auto& failure = editor->failure()) b.add(edit.children, label("vault.editor.failure", "⚠︎ " + *failure));
        auto confirm = entry("vault.editor.confirm", Kind::command, editor->confirmTitle());
        confirm.isEnabled = editor->canConfirm();
        b.add(edit.children, confirm, [self, &panel] {
            panel.confirmEditor();
            self->changed();
        });
        b.add(edit.children, entry("vault.editor.cancel", Kind::command, "Cancel"), [self, &panel] {
            panel.cancelEditor();
            self->changed();
        });
        b.add(edit.children, label("vault.editor.footnote", VaultEditor::footnote));
        out.push_back(std::move(edit));
    } else {
        auto add = entry("vault.add", Kind::submenu, "Add");
        for (VaultKind kind : VaultKinds::allCases)
            b.add(add.children, entry("vault.add." + std::string(VaultKinds::id(kind)), Kind::command, std::string(VaultKinds::title(kind))),
                  [self, &panel, kind] {
                      panel.beginAdd(kind);
                      self->changed();
                  });
        out.push_back(std::move(add));
    }
    if (!panel.message().empty()) b.add(out, label("vault.message", panel.message()));
    b.add(out, entry("vault.lock", Kind::command, "Lock Now"), [self, &panel] {
        panel.close();
        self->changed();
    });
}

} // namespace tavrick
