#pragma once

#include "SelectionKit/Decimal.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tavrick {

// Adds up the numbers in a selection for the Sum button: "1.5k 2" is 1502, "€1.000,50 €2" is
// €1,002.5. Words that are not numbers are passed over.
namespace NumberSum {

struct Result {
    Decimal total;
    std::size_t count = 0;
    // The symbol all the numbers that carry one agree on.
    std::optional<std::string> currency;

    // "€1,002.5", "-3", "0".
    std::string formatted() const;
    // The result window's title: "2 numbers".
    std::string title() const { return std::to_string(count) + " numbers"; }
};

struct Number {
    Decimal value;
    std::optional<std::string> currency;
};

// Nothing when fewer than two numbers are found, or when the total does not fit.
std::optional<Result> sum(std::string_view text);
// One token read as a number, or nothing.
std::optional<Number> number(std::string_view token);

} // namespace NumberSum

} // namespace tavrick
