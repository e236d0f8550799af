#pragma once

#include "CoreKit/Geometry.h"

#include <string>

namespace tavrick {

// Sizes as they appear in window and view diagnostics: whole numbers, and "unbounded" for what
// a layout uses to mean no limit.
namespace Measure {

// Non-finite values and magnitudes above 2^63 give "unbounded"; otherwise the value rounded
// half away from zero, without a fraction.
std::string describe(double value);
// Width, "x", height, each as above: "800x601".
std::string describe(Size size);

} // namespace Measure

} // namespace tavrick
