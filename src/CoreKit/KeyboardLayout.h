#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tavrick {

// Where the current keyboard layout is read from. `readCurrentLayout` gives, for each key code it
// can translate, the text that key types with no modifiers held (as the platform reports it; the
// cache trims and upper-cases). It is called on the main thread only, because the platform's
// layout calls are main-thread only. `observeChanges` calls its argument whenever the user picks
// another layout, on any thread, until the returned observation ends. Either may be empty: then
// there is no layout and names fall through to the US ones.
struct KeyboardLayoutSource {
    std::function<std::map<std::uint16_t, std::string>()> readCurrentLayout;
    std::function<Observation(std::function<void()>)> observeChanges;
};

// The legends of the current keyboard layout, so that a shortcut bound on a Dvorak or AZERTY
// machine shows the letter the user sees on the key. Readable from any thread.
class KeyboardLayoutCache : public std::enable_shared_from_this<KeyboardLayoutCache> {
public:
    static std::shared_ptr<KeyboardLayoutCache> make(KeyboardLayoutSource source, Scheduler& scheduler);

    // Main thread, once: reads the layout and follows the user's changes of layout from then on.
    void startObserving();
    // Reads the layout on the calling thread and replaces what is cached.
    void refresh();
    // The legend of a key on the current layout. Off the main thread this is nothing until the
    // cache has been loaded, so tap threads never touch the layout source.
    std::optional<std::string> character(std::uint16_t keyCode) const;

    bool isLoaded() const;

    // What a translated key text shows as: trimmed of white space and upper-cased; nothing when
    // only white space is left.
    static std::optional<std::string> legend(std::string_view translated);

private:
    KeyboardLayoutCache(KeyboardLayoutSource source, Scheduler& scheduler);
    std::map<std::uint16_t, std::string> readLayout() const;

    KeyboardLayoutSource source_;
    Scheduler& scheduler_;
    mutable std::mutex lock_;
    mutable std::map<std::uint16_t, std::string> legends_;
    mutable bool loaded_ = false;
    bool observing_ = false;
    Observation subscription_;
};

} // namespace tavrick
