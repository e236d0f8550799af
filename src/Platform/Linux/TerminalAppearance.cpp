#include "Platform/Linux/TerminalAppearance.h"

#include <string>

namespace tavrick {

void TerminalAppearance::apply(AppAppearance appearance) {
    log_.note("appearance", "windows follow “" + std::string(displayName(appearance)) + "” (the terminal itself has no appearance)");
}

} // namespace tavrick
