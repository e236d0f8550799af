#pragma once

#include <chrono>
#include <thread>

namespace tavrick::testing {

// Waits for something another real thread does, checking every millisecond. For the few tests
// that prove a real thread works; everything else runs on virtual time.
template <class Predicate>
bool eventually(Predicate predicate, double timeoutSeconds = 5.0) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace tavrick::testing
