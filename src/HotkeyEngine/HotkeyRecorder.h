#pragma once

#include "CoreKit/EventSystem.h"
#include "CoreKit/Modifiers.h"
#include "CoreKit/Observable.h"
#include "HotkeyEngine/HotkeyValidation.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace tavrick {

// The application's local event monitor: it sees the program's own key events, on the main
// thread, before any window does. A handler that returns nothing keeps the event from the rest
// of the program.
struct LocalEventMonitor {
    using Token = std::uint64_t;
    using Handler = std::function<std::optional<Event>(const Event&)>;

    std::function<Token(EventMask mask, Handler handler)> add;
    std::function<void(Token token)> remove;
};

// The application's key events carry the same modifier bits as the session's; every other bit,
// caps lock included, is dropped.
Modifiers modifiersFromNSFlags(std::uint64_t flags);

// Captures a new key combination in the editor. Main thread only. While it records, every key
// event of the program goes to it, so that nothing typed reaches another control.
class HotkeyRecorder {
public:
    static constexpr EventMask monitorMask = eventMaskBit(EventType::keyDown) | eventMaskBit(EventType::flagsChanged);

    HotkeyRecorder(LocalEventMonitor monitor, std::optional<HotkeySpec> initial, HotkeyPurpose purpose);
    // A recorder that still records removes its monitor.
    ~HotkeyRecorder();
    HotkeyRecorder(const HotkeyRecorder&) = delete;
    HotkeyRecorder& operator=(const HotkeyRecorder&) = delete;

    bool isRecording() const { return isRecording_.get(); }
    const std::optional<HotkeySpec>& captured() const { return captured_.get(); }
    HotkeyValidation validation() const { return validation_.get(); }
    HotkeyPurpose purpose() const { return purpose_; }

    Observation observeRecording(Observable<bool>::Observer observer) { return isRecording_.observe(std::move(observer)); }
    Observation observeCaptured(Observable<std::optional<HotkeySpec>>::Observer observer) {
        return captured_.observe(std::move(observer));
    }
    Observation observeValidation(Observable<HotkeyValidation>::Observer observer) {
        return validation_.observe(std::move(observer));
    }

    // Told of each valid combination, after the recording has ended.
    std::function<void(const HotkeySpec&)> onCapture;

    // Does nothing while recording.
    void begin();
    // Ends the recording; `captured` keeps its value.
    void cancel();
    void clear();

    // What the monitor does with each event while recording: every event is kept from the rest of
    // the program (nothing is returned). When not recording the event passes untouched.
    std::optional<Event> consume(const Event& event);

    static HotkeyValidation validate(const HotkeySpec& spec, HotkeyPurpose purpose) {
        return HotkeyRules::validate(spec, purpose);
    }
    // True while any recorder records, so global shortcuts can stand aside.
    static bool isAnyRecording();

private:
    void setRecording(bool recording);

    LocalEventMonitor monitorPort_;
    HotkeyPurpose purpose_;
    Observable<bool> isRecording_{false};
    Observable<std::optional<HotkeySpec>> captured_;
    Observable<HotkeyValidation> validation_{HotkeyValidation::valid};
    std::optional<LocalEventMonitor::Token> monitor_;
    // The monitor's handler holds this weakly, so an event that arrives after the recorder is
    // gone passes through.
    std::shared_ptr<HotkeyRecorder*> self_;
};

} // namespace tavrick
