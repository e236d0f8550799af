#include "VaultKit/SecretClipboard.h"

namespace tavrick {

namespace SecretClipboard {

std::optional<std::int64_t> copy(const std::string& value, Pasteboard& pasteboard) {
    pasteboard.clearContents();
    // The marker goes first, so a reader that looks at the first type already skips it.
    if (!pasteboard.setString("", concealedType) || !pasteboard.setString(value, Pasteboard::plainTextType))
        return std::nullopt;
    return pasteboard.changeCount();
}

bool clearIfUnchanged(std::int64_t since, Pasteboard& pasteboard) {
    if (!stillOurs(pasteboard.changeCount(), since)) return false;
    pasteboard.clearContents();
    return true;
}

} // namespace SecretClipboard

VaultSession::VaultSession(Scheduler& scheduler, Pasteboard& pasteboard, std::function<int()> lockSeconds,
                           std::function<int()> clipboardSeconds)
    : scheduler_(scheduler), pasteboard_(pasteboard), lockSeconds_(std::move(lockSeconds)),
      clipboardSeconds_(std::move(clipboardSeconds)) {}

VaultSession::~VaultSession() {
    lockTimer_.cancel();
    clearTimer_.cancel();
    for (auto& [field, timer] : revealTimers_) timer.cancel();
}

void VaultSession::restartLockTimer() {
    lockTimer_.cancel();
    const int seconds = lockSeconds_();
    if (seconds < 1) return;
    lockTimer_ = scheduler_.after(seconds, [this] { fire(); });
}

void VaultSession::cancelLockTimer() {
    lockTimer_.cancel();
    deferrals_ = 0;
}

void VaultSession::fire() {
    if (isEditing && isEditing() && deferrals_ < 3) {
        ++deferrals_;
        restartLockTimer();
        return;
    }
    lockTimer_.cancel();
    deferrals_ = 0;
    clearOnScreenState();
    if (onLock) onLock();
}

void VaultSession::reveal(const FieldRef& field, const VaultField& description) {
    revealed_.insert(field);
    revealTimers_[field].cancel();
    revealTimers_[field] = scheduler_.after(description.revealSeconds(), [this, field] {
        hide(field);
        if (onChange) onChange();
    });
    restartLockTimer();
}

void VaultSession::hide(const FieldRef& field) {
    revealed_.erase(field);
    if (auto it = revealTimers_.find(field); it != revealTimers_.end()) {
        it->second.cancel();
        revealTimers_.erase(it);
    }
}

std::string VaultSession::display(const FieldRef& field, const VaultField& description,
                                  const std::string& value) const {
    if (!description.isSecret() || isRevealed(field)) return value;
    if (auto* masked = std::get_if<VaultField::Masked>(&description.secrecy)) return Masking::mask(value, masked->style);
    return Masking::guardedBullets(value);
}

void VaultSession::copy(const std::string& value) {
    restartLockTimer();
    clearTimer_.cancel();
    auto count = SecretClipboard::copy(value, pasteboard_);
    if (!count) {
        message_ = "The pasteboard would not take it.";
        return;
    }
    const int seconds = clipboardSeconds_();
    if (seconds < 1) {
        message_ = "Copied. Tavrick's clipboard history skipped it.";
        return;
    }
    message_ = "Copied — the pasteboard clears in " + std::to_string(seconds) + "s, and the history skipped it.";
    clearTimer_ = scheduler_.after(seconds, [this, since = *count] {
        if (SecretClipboard::clearIfUnchanged(since, pasteboard_)) {
            message_ = "The copy has been cleared from the pasteboard.";
            if (onChange) onChange();
        }
    });
}

void VaultSession::clearOnScreenState() {
    for (auto& [field, timer] : revealTimers_) timer.cancel();
    revealTimers_.clear();
    revealed_.clear();
    message_.clear();
}

} // namespace tavrick
