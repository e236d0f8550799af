#include "Platform/Linux/TerminationSignals.h"

#include <atomic>
#include <csignal>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace tavrick::TerminationSignals {

namespace {
std::atomic<void (*)()> beforeImmediateExit{nullptr};
} // namespace

void setBeforeImmediateExit(void (*hook)()) {
    beforeImmediateExit = hook;
}

void install(std::function<void(int)> onRequest) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([set, onRequest = std::move(onRequest)] {
        pthread_setname_np(pthread_self(), "tavrick.signals");
        bool requested = false;
        for (;;) {
            int signal = 0;
            if (sigwait(&set, &signal) != 0) continue;
            if (requested) {
                if (auto hook = beforeImmediateExit.load()) hook();
                _exit(128 + signal);
            }
            requested = true;
            onRequest(signal);
        }
    }).detach();
}

} // namespace tavrick::TerminationSignals
