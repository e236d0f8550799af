#include "SelectionKit/SelectionController.h"

#include "CoreKit/Log.h"
#include "CoreKit/UnicodeText.h"
#include "SelectionKit/NumberSum.h"

#include <algorithm>

namespace tavrick {

namespace {

constexpr const char* category = "selection";
constexpr const char* askedFor = "asked for";

std::string characters(const std::string& text) { return std::to_string(UnicodeText::characterCount(text)); }

bool contains(Rect frame, Point point) {
    return point.x >= frame.minX() && point.x <= frame.minX() + frame.size.width && point.y >= frame.minY() &&
           point.y <= frame.minY() + frame.size.height;
}

} // namespace

SelectionController::SelectionController(AppSettings& settings, DiagnosticLog& log, Scheduler& scheduler, Ports ports)
    : settings_(settings),
      log_(log),
      scheduler_(scheduler),
      ports_(std::move(ports)),
      reader_(ports_.accessibility, scheduler),
      watcher_(ports_.events),
      diskQueue_(scheduler.makeSerialQueue("com.orvell.tavrick.selection-path", QoS::userInitiated)) {
    if (!ports_.mouseLocation) ports_.mouseLocation = [] { return Point{}; };
    if (!ports_.visibleFrame) ports_.visibleFrame = [](Point) { return Rect{{0, 0}, {1440, 900}}; };
    if (!ports_.kindOfItem) {
        ports_.kindOfItem = [queue = diskQueue_](const std::string& path,
                                                  std::function<void(std::optional<SelectionPathKind>)> done) {
            queue->async([path, done = std::move(done)] { done(SelectionPath::kindOnDisk(path)); });
        };
    }
    std::weak_ptr<bool> alive = alive_;
    watcher_.onPossibleSelection = [this, alive](std::string description) {
        scheduler_.async([this, alive, description = std::move(description)] {
            if (alive.lock()) present(description);
        });
    };
    watcher_.onDismiss = [this, alive] {
        scheduler_.async([this, alive] {
            if (alive.lock()) dismissUnlessOnTheBar();
        });
    };
}

SelectionController::~SelectionController() {
    alive_.reset();
    cancelWork();
    watcher_.stop();
}

void SelectionController::note(const std::string& message) { log_.note(category, message); }

void SelectionController::changed() {
    if (onSurfacesChanged) onSurfacesChanged();
}

void SelectionController::observeSettings() {
    auto apply = [this](SelectionMode mode) {
        if (mode == SelectionMode::automatic) {
            startWatching();
        } else {
            hide();
            watcher_.stop();
        }
    };
    modeObservation_ = settings_.selectionMode.observe(apply);
    apply(settings_.selectionMode.get());
}

void SelectionController::startWatching() {
    try {
        watcher_.start();
        error_.set(std::nullopt);
    } catch (const std::exception& failure) {
        note(std::string("automatic mode could not start: ") + failure.what());
        error_.set(std::string(failure.what()));
    }
}

void SelectionController::cancelWork() {
    workTimer_.cancel();
    if (workCancelled_) workCancelled_->store(true);
    workCancelled_.reset();
}

void SelectionController::present(const std::string& reason) {
    // Secrets shown in the vault window must not be read, copied or sent.
    if (isSuspended_) return;
    cancelWork();
    const auto generation = ++readGeneration_;
    workTimer_ = scheduler_.after(settleDelay, [this, generation, reason] { attemptRead(generation, reason, false); });
}

void SelectionController::attemptRead(std::uint64_t generation, std::string reason, bool isRetry) {
    std::weak_ptr<bool> alive = alive_;
    reader_.read([this, alive, generation, reason, isRetry](std::optional<SelectedText> selection) {
        if (alive.lock()) received(generation, reason, isRetry, std::move(selection));
    });
}

void SelectionController::received(std::uint64_t generation, const std::string& reason, bool isRetry,
                                   std::optional<SelectedText> selection) {
    if (generation != readGeneration_ || isSuspended_) return;
    if (!selection) {
        if (!isRetry) {
            // Some applications publish a selection a little after the mouse is let go.
            workTimer_ = scheduler_.after(retryDelay, [this, generation, reason] { attemptRead(generation, reason, true); });
        } else {
            noteNothingFound();
        }
        return;
    }
    lastEmptyApp_.reset();
    CopyOnSelectDecision decision(settings_.copyOnSelect.get(), settings_.selectionMode.get());
    if (decision.shouldCopy) {
        ports_.pasteboard.clearContents();
        ports_.pasteboard.setString(selection->text);
        note("copied on select (" + characters(selection->text) + " characters)");
    } else if (!decision.reason.empty() && reason == askedFor) {
        note("not copying automatically — " + decision.reason);
    }

    // Open in Finder has to be earned on disk, which may be slow: ask off the main thread with a
    // time-out, and go on without the button when no answer comes.
    const auto& actions = settings_.selectionActions();
    bool wantsPath = std::any_of(actions.begin(), actions.end(), [](const SelectionAction& action) {
        return action.kind() == SelectionAction::Case::revealInFinder;
    });
    auto path = wantsPath ? SelectionPath::resolve(selection->text, ports_.home) : std::nullopt;
    if (!path) {
        offer(generation, std::move(*selection), decision.shouldCopy, std::nullopt);
        return;
    }
    struct SettledOnce {
        bool settled = false;
    };
    auto once = std::make_shared<SettledOnce>();
    std::weak_ptr<bool> alive = alive_;
    auto shared = std::make_shared<SelectedText>(std::move(*selection));
    const bool copied = decision.shouldCopy;
    auto settle = [this, alive, once, generation, shared, copied](std::optional<SelectionPathKind> kind) {
        if (!alive.lock() || once->settled) return;  // a late answer is dropped
        once->settled = true;
        offer(generation, *shared, copied, kind);
    };
    workTimer_ = scheduler_.after(diskTimeout, [settle] { settle(std::nullopt); });
    ports_.kindOfItem(*path, [this, settle](std::optional<SelectionPathKind> kind) {
        scheduler_.async([settle, kind] { settle(kind); });
    });
}

void SelectionController::offer(std::uint64_t generation, SelectedText selection, bool alreadyCopied,
                                std::optional<SelectionPathKind> pathKind) {
    if (generation != readGeneration_ || isSuspended_) return;
    auto itemKind = [pathKind](const std::string&) { return pathKind; };
    std::vector<SelectionAction> offered;
    std::optional<bool> sums;
    for (const auto& action : settings_.selectionActions()) {
        if (!action.applies(selection.text, ports_.home, itemKind)) continue;
        if (action.kind() == SelectionAction::Case::sum) {
            if (!sums) sums = NumberSum::sum(selection.text).has_value();
            if (!*sums) continue;
        }
        offered.push_back(action);
    }
    if (offered.empty()) {
        hide();
        return;
    }
    show(std::move(offered), std::move(selection), alreadyCopied);
}

void SelectionController::noteNothingFound() {
    if (isSuspended_) return;
    auto app = ports_.accessibility.frontmostApplicationName();
    if (app && lastEmptyApp_ == app) return;
    lastEmptyApp_ = app.value_or("");
    note(app.value_or("an app") + " published no selection — " + reader_.lastFailureReason());
}

void SelectionController::show(std::vector<SelectionAction> actions, SelectedText selection, bool alreadyCopied) {
    note("bar shown (" + characters(selection.text) + " characters in " + selection.appName.value_or("an app") + ", " +
         std::to_string(actions.size()) + " actions)");
    const Point mouse = ports_.mouseLocation();
    const Point anchor = selection.bounds ? selection.bounds->origin : mouse;
    const auto appearance = settings_.selectionAppearance.get();
    const Size size = SelectionPlacement::barSize(actions.size(), appearance);
    bar_.isVisible = true;
    bar_.actions = std::move(actions);
    bar_.appearance = appearance;
    bar_.alreadyCopied = alreadyCopied;
    bar_.frame = {SelectionPlacement::barOrigin(size, selection.bounds, mouse, ports_.visibleFrame(anchor)), size};
    bar_.text = std::move(selection.text);
    bar_.selectionBounds = selection.bounds;
    changed();
}

void SelectionController::hide() {
    ++readGeneration_;
    cancelWork();
    const bool wasShowing = bar_.isVisible || results_.isVisible;
    bar_ = SelectionBarState{};
    results_.isVisible = false;
    if (wasShowing) changed();
}

void SelectionController::dismissUnlessOnTheBar() {
    const Point mouse = ports_.mouseLocation();
    // The click that presses a button must not close the bar first.
    if (bar_.isVisible && contains(bar_.frame, mouse)) return;
    if (results_.isVisible && contains(results_.frame, mouse)) return;
    hide();
}

void SelectionController::setSuspended(bool suspended) {
    if (suspended == isSuspended_) return;
    isSuspended_ = suspended;
    if (suspended) {
        hide();
        note("not looking while the vault is open");
    } else {
        note("looking again");
    }
}

bool SelectionController::press(const std::string& actionId) {
    if (!bar_.isVisible) return false;
    for (const auto& action : bar_.actions) {
        if (action.id() != actionId) continue;
        perform(action, bar_.text);
        return true;
    }
    return false;
}

void SelectionController::showResult(std::string title, SelectionResultState::State state) {
    const Size size{320, 120};
    const Point point = bar_.isVisible ? bar_.frame.origin : ports_.mouseLocation();
    results_.isVisible = true;
    results_.title = std::move(title);
    results_.state = std::move(state);
    results_.frame = {SelectionPlacement::resultOrigin(point, size, ports_.visibleFrame(point)), size};
    changed();
}

void SelectionController::copyAnswer() {
    if (!results_.isVisible) return;
    if (auto* answer = std::get_if<SelectionResultState::Answer>(&results_.state)) {
        ports_.pasteboard.clearContents();
        ports_.pasteboard.setString(answer->text);
    }
}

void SelectionController::perform(const SelectionAction& action, const std::string& text) {
    note("bar button pressed: " + action.title());
    using Case = SelectionAction::Case;
    switch (action.kind()) {
    case Case::copy:
        ports_.pasteboard.clearContents();
        ports_.pasteboard.setString(text);
        hide();
        return;
    case Case::sum: {
        auto result = NumberSum::sum(text);
        if (!result) {
            showResult("Sum", SelectionResultState::Failed{"Fewer than two numbers in the selection."});
            return;
        }
        showResult(result->title(), SelectionResultState::Answer{result->formatted()});
        return;
    }
    case Case::askAI:
        askModel("Ask AI",
                 "Answer the user's implicit question about this text. If it is a question, answer it. If it is not, "
                 "explain what it means or says, briefly.",
                 text);
        return;
    case Case::translate:
        askModel("Translate",
                 "Translate this into " + settings_.translateInto.get() + ". Reply with the translation only.", text);
        return;
    case Case::sendToNotepad:
        if (onSendToNotepad) onSendToNotepad(text);
        hide();
        return;
    case Case::revealInFinder: {
        auto path = SelectionPath::resolve(text, ports_.home);
        auto kind = path ? SelectionPath::kindOnDisk(*path) : std::nullopt;
        if (!kind) {
            note("'Open in Finder' — nothing is there any more");
            return;
        }
        // A folder opens in a window of its own; a file, or an application, is shown in its
        // folder rather than opened or launched.
        std::optional<std::string> failure;
        if (*kind == SelectionPathKind::folder && !path->ends_with(".app")) {
            failure = ports_.launcher.open(URL{"file://" + *path});
        } else {
            failure = ports_.launcher.reveal(*path);
        }
        if (failure) note("'Open in Finder' failed: " + *failure);
        hide();
        return;
    }
    case Case::search:
    case Case::openLink:
    case Case::lookUp:
    case Case::custom: {
        auto url = action.url(text, settings_.searchEngine.get());
        if (!url) {
            note("'" + action.title() + "' produced no URL — check its template");
            return;
        }
        if (auto failure = ports_.launcher.open(*url)) note("'" + action.title() + "' could not open: " + *failure);
        hide();
        return;
    }
    }
}

void SelectionController::askModel(const std::string& title, const std::string& instruction, const std::string& text) {
    showResult(title, SelectionResultState::Working{"Thinking…"});
    cancelWork();
    ModelQuestion question;
    question.provider = settings_.aiProvider.get();
    const auto& models = settings_.aiModels.get();
    if (auto it = models.find(question.provider); it != models.end()) question.model = it->second;
    question.baseURL = settings_.aiBaseURL.get();
    question.instruction = instruction;
    question.text = text;

    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    workCancelled_ = cancelled;
    std::weak_ptr<bool> alive = alive_;
    auto ask = onAskModel;
    scheduler_.global(QoS::userInitiated, [this, alive, ask, question, cancelled, title] {
        ModelReply reply = ask ? ask(question, cancelled) : ModelReply{false, "No model is available in this build."};
        scheduler_.async([this, alive, reply, cancelled, title] {
            // A withdrawn question shows nothing.
            if (!alive.lock() || cancelled->load()) return;
            if (workCancelled_ == cancelled) workCancelled_.reset();
            if (reply.succeeded) {
                showResult(title, SelectionResultState::Answer{reply.text});
                note(title + " answered (" + characters(reply.text) + " characters)");
            } else {
                showResult(title, SelectionResultState::Failed{reply.text});
                note(title + " failed: " + reply.text);
            }
        });
    });
}

} // namespace tavrick
