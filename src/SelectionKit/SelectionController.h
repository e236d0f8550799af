#pragma once

#include "CoreKit/AppSettings.h"
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/EventSystem.h"
#include "CoreKit/Observable.h"
#include "CoreKit/Pasteboard.h"
#include "CoreKit/SelectionPath.h"
#include "CoreKit/Workspace.h"
#include "SelectionKit/SelectionReader.h"
#include "SelectionKit/SelectionSurfaces.h"
#include "SelectionKit/SelectionWatcher.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tavrick {

// What the selection bar asks a language model: the provider and model as the settings name
// them, the instruction, and the selection. The answer or the failure's words come back.
struct ModelQuestion {
    std::string provider;
    std::string model;  // empty: the provider's default
    std::string baseURL;
    int maxTokens = 1024;
    std::string instruction;
    std::string text;
};
struct ModelReply {
    bool succeeded = false;
    std::string text;  // the answer, or the failure's description
};

// Ties the reader, the watcher, the bar and the result window to the settings. In automatic mode
// it looks for a selection after a gesture or key that may have made one; on demand the "Show
// selection bar" action calls `present`. It never logs the selected text, only lengths.
// Main thread only.
class SelectionController {
public:
    static constexpr double settleDelay = 0.12;
    static constexpr double retryDelay = 0.28;
    // How long the bar waits on the disk before it leaves out Open in Finder.
    static constexpr double diskTimeout = 0.5;

    struct Ports {
        SelectionAccessibility& accessibility;
        EventSystem& events;
        Pasteboard& pasteboard;
        DesktopLauncher& launcher;
        std::string home;
        std::function<Point()> mouseLocation;
        // The visible frame of the screen holding a point.
        std::function<Rect(Point)> visibleFrame;
        // Folder, file or nothing for a path, answered on any thread; the default asks the disk
        // on a queue of its own.
        std::function<void(const std::string& path, std::function<void(std::optional<SelectionPathKind>)>)> kindOfItem;
    };

    SelectionController(AppSettings& settings, DiagnosticLog& log, Scheduler& scheduler, Ports ports);
    ~SelectionController();
    SelectionController(const SelectionController&) = delete;
    SelectionController& operator=(const SelectionController&) = delete;

    // Installed by the coordinator.
    std::function<void(const std::string& text)> onSendToNotepad;
    // Runs off the main thread; `cancelled` is set when the question is withdrawn.
    std::function<ModelReply(const ModelQuestion&, const std::shared_ptr<std::atomic<bool>>& cancelled)> onAskModel;
    // Told on the main thread after every change of the bar or the result window.
    std::function<void()> onSurfacesChanged;

    // Follows the mode setting from now on, and applies the current one.
    void observeSettings();
    void startWatching();
    void present(const std::string& reason);
    void hide();
    void setSuspended(bool suspended);
    // A press on the bar's button with `actionId`; false when no visible button has that id.
    bool press(const std::string& actionId);
    void perform(const SelectionAction& action, const std::string& text);
    void copyAnswer();
    void dismissUnlessOnTheBar();

    SelectionWatcher& watcher() { return watcher_; }
    SelectionReader& reader() { return reader_; }
    const Observable<std::optional<std::string>>& error() const { return error_; }
    const SelectionBarState& bar() const { return bar_; }
    const SelectionResultState& results() const { return results_; }
    bool isSuspended() const { return isSuspended_; }
    std::uint64_t readGeneration() const { return readGeneration_; }

private:
    void attemptRead(std::uint64_t generation, std::string reason, bool isRetry);
    void received(std::uint64_t generation, const std::string& reason, bool isRetry, std::optional<SelectedText> selection);
    void offer(std::uint64_t generation, SelectedText selection, bool alreadyCopied,
               std::optional<SelectionPathKind> pathKind);
    void noteNothingFound();
    void show(std::vector<SelectionAction> actions, SelectedText selection, bool alreadyCopied);
    void showResult(std::string title, SelectionResultState::State state);
    void askModel(const std::string& title, const std::string& instruction, const std::string& text);
    void cancelWork();
    void note(const std::string& message);
    void changed();

    AppSettings& settings_;
    DiagnosticLog& log_;
    Scheduler& scheduler_;
    Ports ports_;
    SelectionReader reader_;
    SelectionWatcher watcher_;
    Observable<std::optional<std::string>> error_{std::nullopt};
    SelectionBarState bar_;
    SelectionResultState results_;
    Cancellable workTimer_;
    std::shared_ptr<std::atomic<bool>> workCancelled_;
    std::uint64_t readGeneration_ = 0;
    bool isSuspended_ = false;
    std::optional<std::string> lastEmptyApp_;
    std::shared_ptr<SerialQueue> diskQueue_;
    Observation modeObservation_;
    // Cleared on destruction, so late replies from other threads find nobody home.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace tavrick
