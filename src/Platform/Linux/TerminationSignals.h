#pragma once

#include <functional>

namespace tavrick::TerminationSignals {

// SIGINT and SIGTERM are the platform's request to terminate. Call this first thing in `main`,
// before any thread exists: it blocks both signals in the process and starts one thread that
// waits for them and calls `onRequest` with the signal number. A second signal while the first
// request is still being handled ends the process at once, for a user who presses Ctrl-C twice.
void install(std::function<void(int signal)> onRequest);

// Runs just before the immediate end of a second signal; it must be async-signal-safe (it puts
// a full-screen terminal back as it was).
void setBeforeImmediateExit(void (*hook)());

} // namespace tavrick::TerminationSignals
