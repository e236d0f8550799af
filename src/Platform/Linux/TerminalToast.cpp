#include "Platform/Linux/TerminalToast.h"

namespace tavrick {

std::string TerminalToast::line(const std::string& title, Toast::Kind kind, const std::optional<std::string>& detail) {
    std::string text = kind == Toast::Kind::warning ? "⚠︎ " : "✓ ";
    text += title;
    if (detail && !detail->empty()) text += " — " + *detail;
    return text;
}

void TerminalToast::present(const std::string& title, Toast::Kind kind, const std::optional<std::string>& detail) {
    std::lock_guard lock(mutex_);
    std::fprintf(out_, "%s\n", line(title, kind, detail).c_str());
    std::fflush(out_);
}

} // namespace tavrick
