#include "Platform/Simulated/SimulatedKeyboardLayout.h"

#include "CoreKit/KeyCodes.h"

#include <cctype>
#include <functional>
#include <mutex>
#include <vector>

namespace tavrick {

struct SimulatedKeyboardLayout::State {
    mutable std::mutex mutex;
    std::optional<Legends> legends;
    std::size_t reads = 0;
    int nextObserver = 0;
    std::map<int, std::function<void()>> observers;
};

SimulatedKeyboardLayout::SimulatedKeyboardLayout() : state_(std::make_shared<State>()) {}

KeyboardLayoutSource SimulatedKeyboardLayout::source() const {
    KeyboardLayoutSource source;
    auto state = state_;
    source.readCurrentLayout = [state] {
        std::lock_guard lock(state->mutex);
        ++state->reads;
        return state->legends.value_or(Legends{});
    };
    source.observeChanges = [state](std::function<void()> onChange) {
        int id;
        {
            std::lock_guard lock(state->mutex);
            id = state->nextObserver++;
            state->observers.emplace(id, std::move(onChange));
        }
        std::weak_ptr<State> weak = state;
        return Observation([weak, id] {
            if (auto strong = weak.lock()) {
                std::lock_guard lock(strong->mutex);
                strong->observers.erase(id);
            }
        });
    };
    return source;
}

void SimulatedKeyboardLayout::select(std::optional<Legends> legends) {
    std::vector<std::function<void()>> toTell;
    {
        std::lock_guard lock(state_->mutex);
        state_->legends = std::move(legends);
        for (auto& [id, observer] : state_->observers) toTell.push_back(observer);
    }
    // Told outside the lock: an observer may read the layout at once.
    for (auto& observer : toTell) observer();
}

std::optional<SimulatedKeyboardLayout::Legends> SimulatedKeyboardLayout::current() const {
    std::lock_guard lock(state_->mutex);
    return state_->legends;
}

std::size_t SimulatedKeyboardLayout::readCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->reads;
}

SimulatedKeyboardLayout::Legends SimulatedKeyboardLayout::us() {
    Legends legends;
    for (auto& [keyCode, name] : KeyCodes::ansiNames()) {
        std::string typed(name);
        for (auto& c : typed) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        legends.emplace(keyCode, std::move(typed));
    }
    return legends;
}

SimulatedKeyboardLayout::Legends SimulatedKeyboardLayout::frenchAZERTY() {
    Legends legends = us();
    // The letters that move, and the digit row, which types symbols without shift.
    const std::pair<std::uint16_t, const char*> changes[] = {
        {0, "q"},  {12, "a"}, {13, "z"}, {6, "w"},  {41, "m"}, {46, ","}, {43, ";"},  {47, ":"},
        {44, "="}, {18, "&"}, {19, "é"}, {20, "\""}, {21, "'"}, {23, "("}, {22, "§"}, {26, "è"},
        {28, "!"}, {25, "ç"}, {29, "à"}, {27, ")"}, {24, "-"}, {33, "^"}, {30, "$"}, {39, "ù"},
        {42, "`"}, {50, "<"},
    };
    for (auto& [keyCode, typed] : changes) legends[keyCode] = typed;
    return legends;
}

} // namespace tavrick
