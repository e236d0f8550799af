#pragma once

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

namespace tavrick::testing {

// Checks that every case reads back from its stored raw value and returns the raw values joined
// by spaces, in declaration order.
template <typename Cases>
std::string roundTrippedRaws(Cases cases) {
    using E = std::remove_cvref_t<decltype(cases[0])>;
    std::string joined;
    for (auto value : cases) {
        EXPECT_EQ(fromRaw<E>(rawValue(value)), value);
        joined += (joined.empty() ? "" : " ") + std::string(rawValue(value));
    }
    return joined;
}

} // namespace tavrick::testing
