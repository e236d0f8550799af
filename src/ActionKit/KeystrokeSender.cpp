#include "ActionKit/KeystrokeSender.h"

#include "CoreKit/Log.h"
#include "CoreKit/SyntheticEvents.h"

namespace tavrick::KeystrokeSender {

void send(const ActionEnvironment& env, const HotkeySpec& spec) {
    if (!env.events.hasEventSource()) {
        Log::action.error("Could not create an event source");
        return;
    }
    auto down = env.events.makeKeyboardEvent(spec.keyCode, true);
    auto up = env.events.makeKeyboardEvent(spec.keyCode, false);
    const std::string display = spec.displayString();
    if (!down || !up) {
        Log::action.error("Could not synthesise key events for %s", display.c_str());
        return;
    }
    down->flags = up->flags = spec.modifiers.cgFlags();
    SyntheticEvents::mark(*down);
    SyntheticEvents::mark(*up);

    auto frontmost = env.workspace.frontmostApplication();
    const bool targetsSelf = frontmost && frontmost->processIdentifier == env.ownProcessIdentifier;
    std::string note = "sending " + display + " to frontmost app '" +
                       (frontmost && frontmost->localizedName ? *frontmost->localizedName : std::string("unknown")) +
                       "'";
    if (targetsSelf) note += " — which is Tavrick itself";
    // Sent anyway: the system drops it, and this note is how a report of "nothing happened" is
    // explained.
    if (env.isAccessibilityTrusted && !env.isAccessibilityTrusted()) {
        note += " — WITHOUT Accessibility, so it will be silently dropped";
    }
    env.log.note("keystroke", note);
    // The key may be about to close this very program; the note must be on disk first.
    if (targetsSelf) env.log.flush();

    env.events.post(*down);
    env.events.post(*up);
}

} // namespace tavrick::KeystrokeSender
