#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/Pasteboard.h"
#include "VaultKit/VaultItem.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace tavrick {

// A secret on the pasteboard, marked so that clipboard managers skip it, and taken off again
// unless the user has copied something else since.
namespace SecretClipboard {
inline constexpr const char* concealedType = "org.nspasteboard.ConcealedType";
// The change count after the copy; nothing when the pasteboard refused it.
std::optional<std::int64_t> copy(const std::string& value, Pasteboard& pasteboard);
inline bool stillOurs(std::int64_t current, std::int64_t written) { return current == written; }
bool clearIfUnchanged(std::int64_t since, Pasteboard& pasteboard);
} // namespace SecretClipboard

// What the vault window decides while it is open: when to lock, which values are revealed and
// for how long, and what a copy says and when it is cleared. It owns no secret.
class VaultSession {
public:
    VaultSession(Scheduler& scheduler, Pasteboard& pasteboard, std::function<int()> lockSeconds,
                 std::function<int()> clipboardSeconds);
    ~VaultSession();

    // Called when the lock timer decides; the coordinator hands it to `Vault::lock`.
    std::function<void()> onLock;
    // Whether an entry is being edited, which earns up to three more periods.
    std::function<bool()> isEditing;
    // What shows changed by itself: a reveal ran out, the pasteboard was cleared.
    std::function<void()> onChange;

    void restartLockTimer();
    void cancelLockTimer();
    int deferrals() const { return deferrals_; }

    // A field of an entry, as the reveal set holds it.
    using FieldRef = std::pair<UUID, std::string>;
    void reveal(const FieldRef& field, const VaultField& description);
    void hide(const FieldRef& field);
    bool isRevealed(const FieldRef& field) const { return revealed_.count(field) != 0; }
    // What a row shows: plain or revealed values as they are, masked ones masked, guarded ones as
    // a few bullets.
    std::string display(const FieldRef& field, const VaultField& description, const std::string& value) const;

    // Copies a stored value; the message says what happens next.
    void copy(const std::string& value);
    const std::string& message() const { return message_; }
    // The window closed or the vault locked elsewhere: nothing stays on screen.
    void clearOnScreenState();

private:
    void fire();

    Scheduler& scheduler_;
    Pasteboard& pasteboard_;
    std::function<int()> lockSeconds_;
    std::function<int()> clipboardSeconds_;
    Cancellable lockTimer_;
    int deferrals_ = 0;
    std::set<FieldRef> revealed_;
    std::map<FieldRef, Cancellable> revealTimers_;
    Cancellable clearTimer_;
    std::string message_;
};

} // namespace tavrick
