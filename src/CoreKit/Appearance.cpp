#include "CoreKit/Appearance.h"

#include <atomic>
#include <mutex>

namespace tavrick {

namespace {
std::mutex mutex;
std::shared_ptr<AppearanceController::Applier> installed;
AppAppearance chosen = AppAppearance::system;
} // namespace

void AppearanceController::setApplier(std::shared_ptr<Applier> applier) {
    std::lock_guard lock(mutex);
    installed = std::move(applier);
}

void AppearanceController::apply(AppAppearance appearance) {
    std::shared_ptr<Applier> applier;
    {
        std::lock_guard lock(mutex);
        chosen = appearance;
        applier = installed;
    }
    if (applier) applier->apply(appearance);
}

AppAppearance AppearanceController::current() {
    std::lock_guard lock(mutex);
    return chosen;
}

} // namespace tavrick
