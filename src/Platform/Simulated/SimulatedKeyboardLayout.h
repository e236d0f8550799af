#pragma once

#include "CoreKit/KeyboardLayout.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace tavrick {

// The user's keyboard layout, simulated: what each key types with no modifier held, as the
// desktop's key translation would report it (lower case, before the cache's trimming). It starts
// with no layout at all, which is what a machine without the layout service gives; a test or the
// diagnostics can pick a layout, and every change is told to the observers like the desktop's
// "layout changed" notification.
class SimulatedKeyboardLayout {
public:
    using Legends = std::map<std::uint16_t, std::string>;

    SimulatedKeyboardLayout();

    // The port for `KeyboardLayoutCache`. It shares this layout's state and may outlive it.
    KeyboardLayoutSource source() const;

    // Nothing means no layout can be read.
    void select(std::optional<Legends> legends);
    std::optional<Legends> current() const;
    // How often the layout was read through the port.
    std::size_t readCount() const;

    // The US layout and the French AZERTY one, letters and digits row only where they differ
    // from the US keys' legends.
    static Legends us();
    static Legends frenchAZERTY();

    struct State;

private:
    std::shared_ptr<State> state_;
};

} // namespace tavrick
