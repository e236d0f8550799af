#pragma once

#include "ClipboardKit/ClipboardHistory.h"
#include "ClipboardKit/ClipboardPolicy.h"
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"
#include "CoreKit/Pasteboard.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tavrick {

// The application in front when a copy was seen: where the copy most likely came from.
struct ClipboardSourceApp {
    std::string bundleID;
    std::string name;
};

// Watches the general pasteboard's counter and keeps what `ClipboardPolicy` allows in a
// `ClipboardHistory`, saved to "clipboard.json" (mode 0600) in the support directory.
//
// Main thread only. Saving is encoded and written on a serial queue of its own, from a snapshot
// that shares the texts, so a long history never holds up the main thread; the newest snapshot
// wins when several wait.
class ClipboardMonitor {
public:
    static constexpr double pollInterval = 0.4;
    static constexpr const char* fileName = "clipboard.json";

    // Loads the file (unless the policy forgets on quit) and starts polling when enabled.
    ClipboardMonitor(ClipboardPolicy policy, bool isEnabled, std::filesystem::path directory, Pasteboard& pasteboard,
                     Scheduler& scheduler, DiagnosticLog& log);
    // Waits for a save still in progress, so the last change is on disk.
    ~ClipboardMonitor();
    ClipboardMonitor(const ClipboardMonitor&) = delete;
    ClipboardMonitor& operator=(const ClipboardMonitor&) = delete;

    const Observable<ClipboardHistory>& history() const { return history_; }
    // Why the latest copy is not in the list, for the pane.
    const Observable<std::optional<std::string>>& lastSkipReason() const { return lastSkipReason_; }
    const Observable<ClipboardPolicy>& policy() const { return policy_; }
    const Observable<bool>& isEnabled() const { return isEnabled_; }
    const std::filesystem::path& storeURL() const { return storeURL_; }

    // A new maximum trims the list; turning on forget-on-quit takes the file off the disk at once.
    void setPolicy(ClipboardPolicy policy);
    // Off stops polling and keeps the list; on starts polling.
    void setEnabled(bool enabled);

    void start();
    // Puts the item's text on the pasteboard without recording that as a copy, and moves it to
    // the top.
    void copyToPasteboard(const ClipboardItem& item);
    void remove(const ClipboardItem& item);
    void setPinned(bool flag, const ClipboardItem& item);
    // Keeps the pinned items; an empty list takes the file away.
    void clear();
    // At quit, only when the policy says so: everything goes, pinned items and the file too.
    void forgetOnQuit();
    // Returns once every save asked for so far is on disk (or has failed).
    void waitForSaves();

    // Reads the pasteboard now, as a tick that saw the counter move does.
    void capture();

    // Who is in front; nothing known when unset or when it answers nothing.
    std::function<std::optional<ClipboardSourceApp>()> frontmostApplication;
    // After each recorded copy.
    std::function<void()> onChange;

private:
    struct Store;
    void load();
    void persist();
    void deleteFile();
    void tick();

    Observable<ClipboardHistory> history_;
    Observable<std::optional<std::string>> lastSkipReason_;
    Observable<ClipboardPolicy> policy_;
    Observable<bool> isEnabled_;
    Cancellable timer_;
    std::int64_t lastChangeCount_ = 0;
    std::filesystem::path storeURL_;

    Pasteboard& pasteboard_;
    Scheduler& scheduler_;
    DiagnosticLog& log_;
    std::shared_ptr<Store> store_;
};

} // namespace tavrick
