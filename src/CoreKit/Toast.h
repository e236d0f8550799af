#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tavrick {

// A short message with an optional detail, shown for a moment and gone.
class Toast {
public:
    enum class Kind { done, warning };

    // Where toasts appear; the host supplies it.
    class Presenter {
    public:
        virtual ~Presenter() = default;
        virtual void present(const std::string& title, Kind kind, const std::optional<std::string>& detail) = 0;
    };

    static Toast& shared();

    void setPresenter(std::shared_ptr<Presenter> presenter);
    // Asked before every toast; toasts are off while it answers false. Unset means on.
    void setIsEnabled(std::function<bool()> isEnabled);

    void show(const std::string& title, Kind kind = Kind::done, const std::optional<std::string>& detail = std::nullopt);

private:
    std::shared_ptr<Presenter> presenter_;
    std::function<bool()> isEnabled_;
};

} // namespace tavrick
