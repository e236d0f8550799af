#include "MouseGestureKit/RecordingPad.h"

namespace tavrick {

void RecordingPad::handle(const Event& event) {
    std::vector<GestureDirection> recorded;
    {
        std::lock_guard guard(lock_);
        switch (event.type) {
        case EventType::rightMouseDown:
            pressed_ = true;
            path_.assign(1, event.location);
            return;
        case EventType::rightMouseDragged:
            if (pressed_) path_.push_back(event.location);
            return;
        case EventType::rightMouseUp:
            if (!pressed_) return;
            pressed_ = false;
            path_.push_back(event.location);
            recorded = recogniser_.strokes(path_);
            path_.clear();
            heard_.push_back(recorded);
            break;
        default: return;
        }
    }
    if (onRecorded) onRecorded(recorded);
}

std::vector<std::vector<GestureDirection>> RecordingPad::heard() const {
    std::lock_guard guard(lock_);
    return heard_;
}

void RecordingPad::clear() {
    std::lock_guard guard(lock_);
    heard_.clear();
    path_.clear();
    pressed_ = false;
}

std::optional<std::string> RecordingPad::verdict(const std::vector<GestureDirection>& strokes, const GestureScope& scope,
                                                 const std::vector<Mapping>& mappings, const std::optional<UUID>& editing) {
    if (strokes.empty()) return std::string(notRecognised);
    for (const auto& mapping : mappings) {
        if (editing && mapping.id == *editing) continue;
        const auto* spec = mapping.trigger.asMouseGesture();
        if (!spec || spec->strokes != strokes) continue;
        if (mapping.effectiveScope() != scope) continue;
        return "Already used by “" + mapping.effectiveName() + "”";
    }
    return std::nullopt;
}

std::string RecordingPad::describe(const std::vector<GestureDirection>& strokes) {
    std::string text = "[";
    for (std::size_t i = 0; i < strokes.size(); ++i) {
        if (i) text += ", ";
        text += rawValue(strokes[i]);
    }
    return text + "]";
}

} // namespace tavrick
