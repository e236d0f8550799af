#pragma once

#include "CoreKit/SettingsTypes.h"

#include <memory>

namespace tavrick {

// Draws the program's windows light, dark or as the system does. The host supplies the side that
// knows how; until it does, a choice is only remembered.
class AppearanceController {
public:
    class Applier {
    public:
        virtual ~Applier() = default;
        virtual void apply(AppAppearance appearance) = 0;
    };

    static void setApplier(std::shared_ptr<Applier> applier);
    static void apply(AppAppearance appearance);
    // The last choice applied, `system` before any.
    static AppAppearance current();
};

} // namespace tavrick
