#pragma once

#include "CoreKit/EventSystem.h"

#include <cstdint>

namespace tavrick {

// The mark on the program's own keystrokes and clicks, so that the engines that watch input do
// not react to what the program sends.
namespace SyntheticEvents {

inline constexpr std::int64_t marker = 0x54415652;

void mark(Event& event);
bool isOurs(const Event& event);

} // namespace SyntheticEvents

} // namespace tavrick
