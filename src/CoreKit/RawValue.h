#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace tavrick {

// Enumerations with text raw values pair `rawValue(e)` and `displayName(e)` overloads with an
// explicit specialisation of these templates, so that every enumeration reads the same way:
// `fromRaw<WindowCommand>("leftHalf")`, `allCases<WindowCommand>()`.
template <class E>
std::optional<E> fromRaw(std::string_view raw);

// Every case, in declaration order.
template <class E>
std::span<const E> allCases();

} // namespace tavrick
