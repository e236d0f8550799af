#pragma once

#include "CoreKit/Appearance.h"
#include "CoreKit/DiagnosticLog.h"

namespace tavrick {

// A terminal has no light or dark: the choice is noted so that a user's report shows what the
// windows of a desktop build would have used.
class TerminalAppearance final : public AppearanceController::Applier {
public:
    explicit TerminalAppearance(DiagnosticLog& log) : log_(log) {}
    void apply(AppAppearance appearance) override;

private:
    DiagnosticLog& log_;
};

} // namespace tavrick
