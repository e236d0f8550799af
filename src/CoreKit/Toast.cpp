#include "CoreKit/Toast.h"

namespace tavrick {

Toast& Toast::shared() {
    static Toast toast;
    return toast;
}

void Toast::setPresenter(std::shared_ptr<Presenter> presenter) {
    presenter_ = std::move(presenter);
}

void Toast::setIsEnabled(std::function<bool()> isEnabled) {
    isEnabled_ = std::move(isEnabled);
}

void Toast::show(const std::string& title, Kind kind, const std::optional<std::string>& detail) {
    if (isEnabled_ && !isEnabled_()) return;
    if (presenter_) presenter_->present(title, kind, detail);
}

} // namespace tavrick
