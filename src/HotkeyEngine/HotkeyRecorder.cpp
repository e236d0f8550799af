#include "HotkeyEngine/HotkeyRecorder.h"

#include "CoreKit/KeyCodes.h"

#include <atomic>
#include <utility>

namespace tavrick {

namespace {
std::atomic<int> recordingCount{0};
} // namespace

Modifiers modifiersFromNSFlags(std::uint64_t flags) {
    return Modifiers::fromCGFlags(flags);
}

HotkeyRecorder::HotkeyRecorder(LocalEventMonitor monitor, std::optional<HotkeySpec> initial, HotkeyPurpose purpose)
    : monitorPort_(std::move(monitor)), purpose_(purpose), captured_(initial),
      self_(std::make_shared<HotkeyRecorder*>(this)) {}

HotkeyRecorder::~HotkeyRecorder() {
    if (isRecording()) {
        if (monitor_ && monitorPort_.remove) monitorPort_.remove(*monitor_);
        recordingCount.fetch_sub(1);
    }
}

bool HotkeyRecorder::isAnyRecording() {
    return recordingCount.load() > 0;
}

void HotkeyRecorder::setRecording(bool recording) {
    if (recording == isRecording()) return;
    recordingCount.fetch_add(recording ? 1 : -1);
    isRecording_.set(recording);
}

void HotkeyRecorder::begin() {
    if (isRecording()) return;
    setRecording(true);
    if (!monitorPort_.add) return;
    std::weak_ptr<HotkeyRecorder*> weak = self_;
    monitor_ = monitorPort_.add(monitorMask, [weak](const Event& event) -> std::optional<Event> {
        auto self = weak.lock();
        if (!self) return event;
        return (*self)->consume(event);
    });
}

void HotkeyRecorder::cancel() {
    setRecording(false);
    if (auto token = std::exchange(monitor_, std::nullopt); token && monitorPort_.remove) {
        monitorPort_.remove(*token);
    }
}

void HotkeyRecorder::clear() {
    captured_.set(std::nullopt);
    validation_.set(HotkeyValidation::valid);
}

std::optional<Event> HotkeyRecorder::consume(const Event& event) {
    if (!isRecording()) return event;
    // Modifier presses alone never end a recording.
    if (event.type != EventType::keyDown) return std::nullopt;

    const Modifiers modifiers = modifiersFromNSFlags(event.flags);
    // Escape alone cancels; with a modifier it is a combination like any other.
    if (event.keyCode == KeyCodes::escape && modifiers.isEmpty()) {
        cancel();
        return std::nullopt;
    }

    const HotkeySpec spec{event.keyCode, modifiers};
    const HotkeyValidation verdict = validate(spec, purpose_);
    validation_.set(verdict);
    // Not usable: keep recording so the user can try again at once.
    if (verdict != HotkeyValidation::valid) return std::nullopt;

    captured_.set(spec);
    cancel();
    if (onCapture) onCapture(spec);
    return std::nullopt;
}

} // namespace tavrick
