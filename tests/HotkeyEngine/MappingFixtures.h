#pragma once

#include "CoreKit/Models.h"

#include <cstdint>
#include <string>

namespace tavrick::testing {

inline Mapping hotkeyMapping(std::string name, std::uint16_t keyCode, Modifiers modifiers, bool enabled = true,
                             ActionSpec action = ActionSpec::window(WindowCommand::leftHalf)) {
    Mapping mapping;
    mapping.id = UUID::random();
    mapping.name = std::move(name);
    mapping.trigger = Trigger::hotkey(HotkeySpec{keyCode, modifiers});
    mapping.action = std::move(action);
    mapping.isEnabled = enabled;
    return mapping;
}

} // namespace tavrick::testing
