#pragma once

#include "ActionKit/ActionEnvironment.h"
#include "CoreKit/Modifiers.h"

namespace tavrick {

// Sends one key press, down then up, to whatever application is in front, marked as the
// program's own so its handlers leave it alone.
namespace KeystrokeSender {

void send(const ActionEnvironment& env, const HotkeySpec& spec);

} // namespace KeystrokeSender

} // namespace tavrick
