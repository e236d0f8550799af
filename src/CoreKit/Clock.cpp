#include "CoreKit/Clock.h"

#include <chrono>

namespace tavrick {

double SystemClock::now() const {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

double SystemClock::monotonic() const {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

SystemClock& SystemClock::shared() {
    static SystemClock clock;
    return clock;
}

} // namespace tavrick
