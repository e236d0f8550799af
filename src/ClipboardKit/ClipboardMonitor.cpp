#include "ClipboardKit/ClipboardMonitor.h"

#include "CoreKit/FileIO.h"
#include "CoreKit/Log.h"
#include "CoreKit/UnicodeText.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <mutex>
#include <system_error>
#include <variant>

namespace tavrick {

namespace fs = std::filesystem;

// The writer's side: the newest request waits here until the queue takes it.
struct ClipboardMonitor::Store {
    struct Delete {};
    using Request = std::variant<std::vector<ClipboardItem>, Delete>;

    Store(fs::path path, std::shared_ptr<SerialQueue> queue, DiagnosticLog& log, Clock& clock)
        : path(std::move(path)), queue(std::move(queue)), log(log), clock(clock) {}

    void submit(Request request) {
        std::lock_guard lock(mutex);
        const bool idle = !pending;
        pending = std::move(request);
        if (!idle) return;
        std::weak_ptr<Store> weak = self;
        queue->async([weak] {
            if (auto store = weak.lock()) store->drain();
        });
    }

    void drain() {
        std::optional<Request> request;
        {
            std::lock_guard lock(mutex);
            request.swap(pending);
        }
        if (!request) return;
        if (std::holds_alternative<Delete>(*request)) {
            if (unreadableOnDisk) {
                keepUnreadable();
                return;
            }
            std::error_code error;
            fs::remove(path, error);
            if (error) fail("could not delete the history file: " + error.message());
            return;
        }
        write(std::get<std::vector<ClipboardItem>>(*request));
    }

    void write(const std::vector<ClipboardItem>& items) {
        std::error_code error;
        fs::create_directories(path.parent_path(), error);
        if (error) return fail("could not create its folder: " + error.message());
        if (unreadableOnDisk && !keepUnreadable()) return;
        nlohmann::json array = nlohmann::json::array();
        for (const auto& item : items) array.push_back(toJSON(item));
        const std::string text = array.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
        if (auto failure = FileIO::writeAtomically(path, text, 0600)) {
            return fail("could not " + failure->step + " " + path.filename().string() + ": " + std::strerror(failure->error));
        }
        // A file made by an earlier build may have had wider permissions; copies are private.
        fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write, fs::perm_options::replace, error);
        if (error) fail("could not make it private: " + error.message());
    }

    // The file that could not be read at launch is moved aside, never replaced or deleted.
    bool keepUnreadable() {
        int moveError = 0;
        if (auto aside = FileIO::moveAside(path, static_cast<long long>(clock.now()), moveError)) {
            log.note("clipboard", "kept the unreadable history as " + aside->filename().string());
        } else if (moveError != ENOENT) {
            fail(std::string("could not move the unreadable history aside: ") + std::strerror(moveError));
            return false;
        }
        unreadableOnDisk = false;
        return true;
    }

    void fail(const std::string& reason) {
        Log::clipboard.error("Could not save clipboard history: %s", reason.c_str());
        log.note("clipboard", "could not save the history — " + reason);
    }

    fs::path path;
    std::shared_ptr<SerialQueue> queue;
    DiagnosticLog& log;
    Clock& clock;
    std::weak_ptr<Store> self;
    std::atomic<bool> unreadableOnDisk = false;
    std::mutex mutex;
    std::optional<Request> pending;
};

ClipboardMonitor::ClipboardMonitor(ClipboardPolicy policy, bool isEnabled, fs::path directory, Pasteboard& pasteboard,
                                   Scheduler& scheduler, DiagnosticLog& log)
    : history_(ClipboardHistory(policy.maximumItems)),
      policy_(std::move(policy)),
      isEnabled_(isEnabled),
      storeURL_(directory / fileName),
      pasteboard_(pasteboard),
      scheduler_(scheduler),
      log_(log) {
    store_ = std::make_shared<Store>(storeURL_, scheduler.makeSerialQueue("com.orvell.tavrick.clipboard-store", QoS::utility),
                                     log, scheduler.clock());
    store_->self = store_;
    if (!policy_.get().clearOnQuit) load();
    if (isEnabled_.get()) start();
}

ClipboardMonitor::~ClipboardMonitor() {
    timer_.cancel();
    waitForSaves();
}

void ClipboardMonitor::load() {
    int error = 0;
    auto contents = FileIO::readAll(storeURL_, error);
    if (!contents) {
        if (error != ENOENT) {
            Log::clipboard.error("Could not read clipboard history: %s", std::strerror(error));
            log_.note("clipboard", std::string("could not read the history, starting empty: ") + std::strerror(error));
        }
        return;
    }
    auto json = nlohmann::json::parse(*contents, nullptr, false);
    std::vector<ClipboardItem> items;
    bool readable = json.is_array();
    if (readable) {
        for (const auto& record : json) {
            auto item = clipboardItemFromJSON(record);
            if (!item) {
                readable = false;
                break;
            }
            items.push_back(std::move(*item));
        }
    }
    if (!readable) {
        Log::clipboard.error("Clipboard history is unreadable; starting empty");
        log_.note("clipboard", "the history file is unreadable (" + std::to_string(contents->size()) +
                                   " bytes) — starting empty; it is kept aside at the next save");
        store_->unreadableOnDisk = true;
        return;
    }
    ClipboardHistory history(policy_.get().maximumItems);
    // From the oldest to the newest, so the rules apply to what is on disk and the order holds.
    for (auto it = items.rbegin(); it != items.rend(); ++it) history.insert(std::move(*it));
    history_.set(std::move(history));
}

void ClipboardMonitor::start() {
    if (timer_ && !timer_.isCancelled()) return;
    // What is already on the pasteboard was copied before anyone asked us to listen.
    lastChangeCount_ = pasteboard_.changeCount();
    timer_ = scheduler_.every(pollInterval, [this] { tick(); });
}

void ClipboardMonitor::tick() {
    const auto count = pasteboard_.changeCount();
    if (count == lastChangeCount_) return;
    lastChangeCount_ = count;
    capture();
}

void ClipboardMonitor::capture() {
    assert(scheduler_.isMainThread());
    const auto types = pasteboard_.types();
    const auto front = frontmostApplication ? frontmostApplication() : std::nullopt;
    std::string text = pasteboard_.string(Pasteboard::plainTextType).value_or("");
    if (!UnicodeText::isValidUTF8(text)) {
        Log::clipboard.notice("Clipboard: a copy of %zu bytes was not valid UTF-8; kept with replacement characters",
                              text.size());
        text = UnicodeText::repairedUTF8(text);
    }
    const auto& policy = policy_.get();
    // The rules only compare the length with nothing and with the limit. A text with no more bytes
    // than the limit has no more characters either, so only a longer one is counted, and counting
    // stops past the limit: an enormous copy costs no more than an allowed one.
    const auto limit = static_cast<std::size_t>(std::max<std::int64_t>(0, policy.maximumTextLength));
    auto length = static_cast<std::int64_t>(text.size() <= limit ? text.size()
                                                                  : UnicodeText::characterCount(text, limit));
    // A copy the pasteboard refused to read for its size is not empty: it is too large, whatever
    // the limit, since its text cannot be had. Its bytes say how many characters it has at least.
    if (text.empty()) {
        if (const auto refused = pasteboard_.oversizedTextBytes(); refused && *refused > 0) {
            length = std::max<std::int64_t>((*refused + 3) / 4, static_cast<std::int64_t>(limit) + 1);
        }
    }
    const auto decision =
        policy.decide(types, front ? std::optional<std::string>(front->bundleID) : std::nullopt, length);

    if (std::holds_alternative<ClipboardPolicy::Record>(decision)) {
        lastSkipReason_.set(std::nullopt);
        ClipboardItem item{UUID::random(), SharedText(std::move(text)), scheduler_.clock().now(),
                           front ? std::optional<std::string>(front->bundleID) : std::nullopt,
                           front ? std::optional<std::string>(front->name) : std::nullopt, false};
        auto history = history_.get();
        history.insert(std::move(item));
        history_.set(std::move(history));
        persist();
        if (onChange) onChange();
    } else if (std::holds_alternative<ClipboardPolicy::SkipConcealed>(decision)) {
        lastSkipReason_.set("Skipped a concealed copy (a password manager marked it private)");
        Log::clipboard.notice("Clipboard: skipped concealed content");
    } else if (auto* excluded = std::get_if<ClipboardPolicy::SkipExcludedApp>(&decision)) {
        lastSkipReason_.set("Skipped a copy from " + excluded->bundleID);
        Log::clipboard.notice("Clipboard: skipped a copy from an excluded app");
    } else if (std::holds_alternative<ClipboardPolicy::SkipTooLarge>(decision)) {
        lastSkipReason_.set("Skipped a copy larger than " + std::to_string(policy.maximumTextLength) + " characters");
        Log::clipboard.notice("Clipboard: skipped a copy of more than %lld characters",
                              static_cast<long long>(policy.maximumTextLength));
    }
    // An empty copy (an image, a file) is not worth a word.
}

void ClipboardMonitor::copyToPasteboard(const ClipboardItem& item) {
    pasteboard_.clearContents();
    if (!pasteboard_.setString(item.text.str(), Pasteboard::plainTextType)) {
        Log::clipboard.error("Could not put a copy back on the pasteboard");
        log_.note("clipboard", "could not put a copy back on the pasteboard");
    }
    // Our own write is not a copy the user made.
    lastChangeCount_ = pasteboard_.changeCount();
    auto history = history_.get();
    history.insert(ClipboardItem{UUID::random(), item.text, scheduler_.clock().now(), item.sourceBundleID,
                                 item.sourceAppName, item.isPinned});
    history_.set(std::move(history));
    persist();
}

void ClipboardMonitor::remove(const ClipboardItem& item) {
    auto history = history_.get();
    history.remove(item.id);
    if (history_.set(std::move(history))) persist();
}

void ClipboardMonitor::setPinned(bool flag, const ClipboardItem& item) {
    auto history = history_.get();
    history.setPinned(flag, item.id);
    if (history_.set(std::move(history))) persist();
}

void ClipboardMonitor::clear() {
    auto history = history_.get();
    history.clear(true);
    const bool empty = history.items().empty();
    history_.set(std::move(history));
    if (empty) {
        deleteFile();
    } else {
        persist();
    }
}

void ClipboardMonitor::forgetOnQuit() {
    if (!policy_.get().clearOnQuit) return;
    auto history = history_.get();
    history.clear(false);
    history_.set(std::move(history));
    deleteFile();
    waitForSaves();
}

void ClipboardMonitor::setPolicy(ClipboardPolicy policy) {
    const bool wasClearing = policy_.get().clearOnQuit;
    const auto maximum = policy.maximumItems;
    if (!policy_.set(std::move(policy))) return;
    auto history = history_.get();
    history.setMaximumItems(maximum);
    history_.set(std::move(history));
    if (policy_.get().clearOnQuit && !wasClearing) {
        deleteFile();
    } else {
        persist();
    }
}

void ClipboardMonitor::setEnabled(bool enabled) {
    if (!isEnabled_.set(enabled)) return;
    if (enabled) {
        start();
    } else {
        timer_.cancel();
        timer_ = Cancellable();
    }
}

void ClipboardMonitor::persist() {
    // Forgetting on quit means the list never touches the disk.
    if (policy_.get().clearOnQuit) return;
    store_->submit(history_.get().items());
}

void ClipboardMonitor::deleteFile() {
    store_->submit(Store::Delete{});
}

void ClipboardMonitor::waitForSaves() {
    store_->queue->sync([] {});
}

} // namespace tavrick
